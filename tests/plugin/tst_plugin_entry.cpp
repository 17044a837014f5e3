#include "TemporaryHome.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/OnlineResourcesWidget.h"
#include "plugin/OnlineResourcesPlugin.h"

#include <IUIPlugin.h>
#include <PluginHost.h>

#include <QDir>
#include <QJsonArray>
#include <QPluginLoader>
#include <QtTest>

using namespace Quorix;

namespace {

UserIdentity identity(const QString &discordId, const QString &token)
{
    return {discordId, "user_" + discordId.right(4), "Global " + discordId.right(4), "avatar" + discordId.right(4),
            token};
}

QStringList credentials(OnlineResourcesWidget *page)
{
    const OnlineResourcesAPI *api = page->api();
    return {api->authToken, api->discordUsername, api->discordGlobalName, api->discordAvatar};
}

} // namespace

// The module as the host loads it, and the page it hands out following the host's sign-ins.
class TestPluginEntry : public QObject
{
    Q_OBJECT

    Testing::TemporaryHome home;
    QPluginLoader loader;

private Q_SLOTS:
    void initTestCase()
    {
        // Nothing listens here: whatever the page asks of the catalogue fails at once and quietly.
        qputenv("QUORIX_SERVER_URL", "http://127.0.0.1:9");
        const QDir dir(qEnvironmentVariable("QUORIX_PLUGIN_DIR"));
        const QStringList modules = dir.entryList({"*online_resources*"}, QDir::Files);
        QVERIFY2(!modules.isEmpty(), "the plugin module was not built into QUORIX_PLUGIN_DIR");
        loader.setFileName(dir.absoluteFilePath(modules.first()));
        QVERIFY2(loader.load(), qPrintable(loader.errorString()));
    }

    void moduleAnnouncesItself()
    {
        QCOMPARE(loader.metaData().value("IID").toString(), "com.quorix.IUIPlugin");
        const QJsonObject expected{{"author", "Quorix Team"},
                                   {"dependencies", QJsonArray{"file_explorer"}},
                                   {"description", "Share and discover scripts with the Orvantis community"},
                                   {"name", "Online Resources"},
                                   {"type", "ui"},
                                   {"version", "1.0.0"}};
        QCOMPARE(loader.metaData().value("MetaData").toObject(), expected);
        QVERIFY(qobject_cast<IUIPlugin *>(loader.instance()) && qobject_cast<ITranslatablePlugin *>(loader.instance()));

        PluginHost host;
        OnlineResourcesPlugin plugin(&host);
        QCOMPARE((QStringList{plugin.pluginId(), plugin.displayName(), plugin.version()}),
                 (QStringList{"online_resources", "Online Resources", "1.0.0"}));
        QCOMPARE(plugin.metadata(), expected);
        QCOMPARE(plugin.host(), &host);
        QVERIFY(!plugin.hasSettings() && plugin.showsInNavigation());
    }

    void pageFollowsItsHostsSignIns()
    {
        PluginHost host;
        OnlineResourcesPlugin plugin(&host);
        auto *page = qobject_cast<OnlineResourcesWidget *>(plugin.page());
        QVERIFY(page);
        QCOMPARE(plugin.page(), page);
        host.signIn(identity("123456789012345678", QString()));
        QCOMPARE(credentials(page), QStringList(4));
        host.signIn(identity("223456789012345678", "token-1"));
        QCOMPARE(credentials(page), (QStringList{"token-1", "user_5678", "Global 5678", "avatar5678"}));

        // The embedding window owns the page; once it is gone the plugin builds a new one that follows the host.
        delete page;
        page = qobject_cast<OnlineResourcesWidget *>(plugin.page());
        QVERIFY(page);
        host.signIn(identity("223456789012349999", "token-2"));
        QCOMPARE(credentials(page).first(), "token-2");

        PluginHost secondHost;
        page->setPluginHost(&secondHost);
        host.signIn(identity("123456789012345678", "old-host-token"));
        QCOMPARE(credentials(page).first(), QString());
        secondHost.signIn(identity("323456789012341111", "new-host-token"));
        QCOMPARE(credentials(page).first(), "new-host-token");
        delete page;
    }
};

QTEST_MAIN(TestPluginEntry)
#include "tst_plugin_entry.moc"
