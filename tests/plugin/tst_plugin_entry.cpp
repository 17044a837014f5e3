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

QString pluginPath()
{
    const QDir dir(qEnvironmentVariable("QUORIX_PLUGIN_DIR"));
    const QStringList modules = dir.entryList({QStringLiteral("*online_resources*")}, QDir::Files);
    return modules.isEmpty() ? QString() : dir.absoluteFilePath(modules.first());
}

UserIdentity identity(const QString &discordId, const QString &token)
{
    return {discordId, QStringLiteral("user_") + discordId.right(4), QStringLiteral("Global ") + discordId.right(4),
            QStringLiteral("avatar") + discordId.right(4), token};
}

} // namespace

class TestPluginEntry : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void moduleAnnouncesItsMetadata();
    void pluginAnswersIdentityQuestions();
    void pageIsCreatedOnceAndFollowsItsHost();
    void hostSignalsCopyCredentialsIntoTheApiClient();
    void emptyTokenCopiesNothing();
    void secondHostReplacesTheFirst();

private:
    struct Loaded
    {
        PluginHost *host = nullptr;
        OnlineResourcesPlugin *plugin = nullptr;
    };
    Loaded createWithHost();

    Testing::TemporaryHome *home = nullptr;
    QPluginLoader loader;
};

void TestPluginEntry::initTestCase()
{
    home = new Testing::TemporaryHome;
    // Nothing listens here: whatever the page asks of the catalogue fails at once and quietly.
    qputenv("QUORIX_SERVER_URL", "http://127.0.0.1:9");
    const QString path = pluginPath();
    QVERIFY2(!path.isEmpty(), "the plugin module was not built into QUORIX_PLUGIN_DIR");
    loader.setFileName(path);
    QVERIFY2(loader.load(), qPrintable(loader.errorString()));
}

void TestPluginEntry::cleanupTestCase()
{
    delete home;
}

TestPluginEntry::Loaded TestPluginEntry::createWithHost()
{
    Loaded loaded;
    loaded.host = new PluginHost(this);
    loaded.plugin = new OnlineResourcesPlugin(loaded.host);
    return loaded;
}

void TestPluginEntry::moduleAnnouncesItsMetadata()
{
    const QJsonObject meta = loader.metaData();
    QCOMPARE(meta.value(QLatin1String("IID")).toString(), QStringLiteral("com.quorix.IUIPlugin"));
    QCOMPARE(meta.value(QLatin1String("className")).toString(), QStringLiteral("OnlineResourcesPlugin"));
    const QJsonObject data = meta.value(QLatin1String("MetaData")).toObject();
    QCOMPARE(data.value(QLatin1String("author")).toString(), QStringLiteral("Quorix Team"));
    QCOMPARE(data.value(QLatin1String("dependencies")).toArray(), QJsonArray{QStringLiteral("file_explorer")});
    QCOMPARE(data.value(QLatin1String("description")).toString(),
             QStringLiteral("Share and discover scripts with the Orvantis community"));
    QCOMPARE(data.value(QLatin1String("name")).toString(), QStringLiteral("Online Resources"));
    QCOMPARE(data.value(QLatin1String("type")).toString(), QStringLiteral("ui"));
    QCOMPARE(data.value(QLatin1String("version")).toString(), QStringLiteral("1.0.0"));
}

void TestPluginEntry::pluginAnswersIdentityQuestions()
{
    QObject *instance = loader.instance();
    QVERIFY(qobject_cast<IUIPlugin *>(instance));
    QVERIFY(qobject_cast<IPlugin *>(instance));
    QVERIFY(qobject_cast<ITranslatablePlugin *>(instance));

    const Loaded loaded = createWithHost();
    QCOMPARE(loaded.plugin->pluginId(), QStringLiteral("online_resources"));
    QCOMPARE(loaded.plugin->displayName(), QStringLiteral("Online Resources"));
    QCOMPARE(loaded.plugin->version(), QStringLiteral("1.0.0"));
    QCOMPARE(loaded.plugin->metadata(), loader.metaData().value(QLatin1String("MetaData")).toObject());
    QCOMPARE(loaded.plugin->host(), loaded.host);
    QVERIFY(!loaded.plugin->hasSettings());
    QVERIFY(loaded.plugin->showsInNavigation());
}

void TestPluginEntry::pageIsCreatedOnceAndFollowsItsHost()
{
    const Loaded loaded = createWithHost();
    QWidget *first = loaded.plugin->page();
    QVERIFY(qobject_cast<OnlineResourcesWidget *>(first));
    QCOMPARE(loaded.plugin->page(), first);

    // The embedding window owns the page; once it is gone the plugin builds a new one instead of a dangling pointer.
    delete first;
    auto *second = qobject_cast<OnlineResourcesWidget *>(loaded.plugin->page());
    QVERIFY(second);
    QCOMPARE(loaded.plugin->page(), second);
    loaded.host->signIn(identity(QStringLiteral("123456789012345678"), QStringLiteral("token-after-rebuild")));
    QCOMPARE(second->api()->authToken, QStringLiteral("token-after-rebuild"));
    delete second;
}

void TestPluginEntry::hostSignalsCopyCredentialsIntoTheApiClient()
{
    const Loaded loaded = createWithHost();
    auto *page = qobject_cast<OnlineResourcesWidget *>(loaded.plugin->page());
    QVERIFY(page);
    QVERIFY(page->api()->authToken.isEmpty());

    loaded.host->signIn(identity(QStringLiteral("123456789012345678"), QStringLiteral("token-1")));
    QCOMPARE(page->api()->authToken, QStringLiteral("token-1"));
    QCOMPARE(page->api()->discordUsername, QStringLiteral("user_5678"));
    QCOMPARE(page->api()->discordGlobalName, QStringLiteral("Global 5678"));
    QCOMPARE(page->api()->discordAvatar, QStringLiteral("avatar5678"));

    loaded.host->signIn(identity(QStringLiteral("223456789012349999"), QStringLiteral("token-2")));
    QCOMPARE(page->api()->authToken, QStringLiteral("token-2"));
    QCOMPARE(page->api()->discordUsername, QStringLiteral("user_9999"));
    delete page;
}

void TestPluginEntry::emptyTokenCopiesNothing()
{
    const Loaded loaded = createWithHost();
    auto *page = qobject_cast<OnlineResourcesWidget *>(loaded.plugin->page());
    loaded.host->signIn(identity(QStringLiteral("123456789012345678"), QString()));
    QVERIFY(page->api()->authToken.isEmpty());
    QVERIFY(page->api()->discordUsername.isEmpty());
    QVERIFY(page->api()->discordGlobalName.isEmpty());
    QVERIFY(page->api()->discordAvatar.isEmpty());
    delete page;
}

void TestPluginEntry::secondHostReplacesTheFirst()
{
    const Loaded loaded = createWithHost();
    auto *page = qobject_cast<OnlineResourcesWidget *>(loaded.plugin->page());
    PluginHost secondHost;
    page->setPluginHost(&secondHost);

    loaded.host->signIn(identity(QStringLiteral("123456789012345678"), QStringLiteral("old-host-token")));
    QVERIFY(page->api()->authToken.isEmpty());

    secondHost.signIn(identity(QStringLiteral("323456789012341111"), QStringLiteral("new-host-token")));
    QCOMPARE(page->api()->authToken, QStringLiteral("new-host-token"));
    delete page;
}

QTEST_MAIN(TestPluginEntry)
#include "tst_plugin_entry.moc"
