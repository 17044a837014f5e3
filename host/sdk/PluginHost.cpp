#include "PluginHost.h"

namespace Quorix {

PluginHost::PluginHost(QObject *parent)
    : QObject(parent)
{
}

bool PluginHost::isUserAuthenticated() const
{
    return authenticated;
}

QString PluginHost::getAuthenticatedDiscordId() const
{
    return identity.discordId;
}

QString PluginHost::getAuthenticatedUsername() const
{
    return identity.username;
}

QString PluginHost::getAuthenticatedGlobalName() const
{
    return identity.globalName;
}

QString PluginHost::getAuthenticatedAvatarHash() const
{
    return identity.avatarHash;
}

QString PluginHost::getAuthSessionToken() const
{
    return identity.sessionToken;
}

QObject *PluginHost::getPlugin(const QString &name) const
{
    return plugins.value(name);
}

void PluginHost::registerPlugin(const QString &pluginId, const QString &displayName, QObject *plugin)
{
    plugins.insert(pluginId, plugin);
    if (!displayName.isEmpty())
        plugins.insert(displayName, plugin);
}

void PluginHost::signIn(const UserIdentity &newIdentity)
{
    const bool userDiffers = newIdentity.discordId != identity.discordId;
    const bool wasAuthenticated = authenticated;
    identity = newIdentity;
    authenticated = true;
    if (!wasAuthenticated)
        Q_EMIT authenticationChanged(true);
    if (userDiffers || wasAuthenticated)
        Q_EMIT userChanged(identity.discordId);
}

void PluginHost::signOut()
{
    if (!authenticated)
        return;
    identity = {};
    authenticated = false;
    Q_EMIT authenticationChanged(false);
    Q_EMIT userChanged(QString());
}

} // namespace Quorix
