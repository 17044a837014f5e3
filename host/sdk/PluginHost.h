#pragma once

#include "QuorixSdkExport.h"

#include <QHash>
#include <QObject>
#include <QPointer>
#include <QString>

namespace Quorix {

// The signed-in Discord user as the host knows it.
struct UserIdentity
{
    QString discordId;
    QString username;
    QString globalName;
    QString avatarHash;
    QString sessionToken;
};

// The host services a plugin reaches through its parent object: who is signed in, and the other plugins.
class QUORIX_SDK_EXPORT PluginHost : public QObject
{
    Q_OBJECT

public:
    explicit PluginHost(QObject *parent = nullptr);

    bool isUserAuthenticated() const;
    QString getAuthenticatedDiscordId() const;
    QString getAuthenticatedUsername() const;
    QString getAuthenticatedGlobalName() const;
    QString getAuthenticatedAvatarHash() const;
    QString getAuthSessionToken() const;

    // A loaded plugin by its ID or its display name; null when there is none.
    QObject *getPlugin(const QString &name) const;
    void registerPlugin(const QString &pluginId, const QString &displayName, QObject *plugin);

    // Used by the host's sign-in: stores the identity and announces the change.
    void signIn(const UserIdentity &identity);
    void signOut();

Q_SIGNALS:
    void authenticationChanged(bool authenticated);
    void userChanged(const QString &discordId);

private:
    UserIdentity identity;
    bool authenticated = false;
    QHash<QString, QPointer<QObject>> plugins;
};

} // namespace Quorix
