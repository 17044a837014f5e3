#include <PluginHost.h>

#include <QSignalSpy>
#include <QtTest>

using namespace Quorix;

class TestPluginHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void signInAnnouncesLoginAndUser();
    void switchingUsersAnnouncesOnlyTheUser();
    void signOutForgetsTheIdentity();
    void pluginsAreFoundByIdOrNameUntilDeleted();
};

void TestPluginHost::signInAnnouncesLoginAndUser()
{
    PluginHost host;
    QSignalSpy authentication(&host, &PluginHost::authenticationChanged);
    QSignalSpy user(&host, &PluginHost::userChanged);

    host.signIn({QStringLiteral("123456789012345678"), QStringLiteral("neo"), QStringLiteral("Neo"),
                 QStringLiteral("a1b2"), QStringLiteral("secret")});

    QVERIFY(host.isUserAuthenticated());
    QCOMPARE(host.getAuthenticatedDiscordId(), QStringLiteral("123456789012345678"));
    QCOMPARE(host.getAuthenticatedUsername(), QStringLiteral("neo"));
    QCOMPARE(host.getAuthenticatedGlobalName(), QStringLiteral("Neo"));
    QCOMPARE(host.getAuthenticatedAvatarHash(), QStringLiteral("a1b2"));
    QCOMPARE(host.getAuthSessionToken(), QStringLiteral("secret"));
    QCOMPARE(authentication.count(), 1);
    QCOMPARE(authentication.first().first().toBool(), true);
    QCOMPARE(user.count(), 1);
    QCOMPARE(user.first().first().toString(), QStringLiteral("123456789012345678"));
}

void TestPluginHost::switchingUsersAnnouncesOnlyTheUser()
{
    PluginHost host;
    host.signIn({QStringLiteral("123456789012345678"), QStringLiteral("neo"), {}, {}, QStringLiteral("t1")});
    QSignalSpy authentication(&host, &PluginHost::authenticationChanged);
    QSignalSpy user(&host, &PluginHost::userChanged);

    host.signIn({QStringLiteral("223456789012345678"), QStringLiteral("trinity"), {}, {}, QStringLiteral("t2")});

    QCOMPARE(authentication.count(), 0);
    QCOMPARE(user.count(), 1);
    QCOMPARE(user.first().first().toString(), QStringLiteral("223456789012345678"));
    QCOMPARE(host.getAuthSessionToken(), QStringLiteral("t2"));
}

void TestPluginHost::signOutForgetsTheIdentity()
{
    PluginHost host;
    QSignalSpy authentication(&host, &PluginHost::authenticationChanged);
    host.signOut();
    QCOMPARE(authentication.count(), 0);

    host.signIn({QStringLiteral("123456789012345678"), QStringLiteral("neo"), {}, {}, QStringLiteral("t1")});
    host.signOut();
    QVERIFY(!host.isUserAuthenticated());
    QVERIFY(host.getAuthSessionToken().isEmpty());
    QVERIFY(host.getAuthenticatedDiscordId().isEmpty());
    QCOMPARE(authentication.count(), 2);
    QCOMPARE(authentication.last().first().toBool(), false);
}

void TestPluginHost::pluginsAreFoundByIdOrNameUntilDeleted()
{
    PluginHost host;
    auto *plugin = new QObject(&host);
    host.registerPlugin(QStringLiteral("gpc3_editor"), QStringLiteral("GPC 3"), plugin);
    QCOMPARE(host.getPlugin(QStringLiteral("gpc3_editor")), plugin);
    QCOMPARE(host.getPlugin(QStringLiteral("GPC 3")), plugin);
    QVERIFY(!host.getPlugin(QStringLiteral("CV Python")));
    delete plugin;
    QVERIFY(!host.getPlugin(QStringLiteral("GPC 3")));
}

QTEST_GUILESS_MAIN(TestPluginHost)
#include "tst_plugin_host.moc"
