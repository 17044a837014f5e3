#include "E2eCatalogue.h"
#include "TemporaryHome.h"

#include <QJsonArray>
#include <QSet>
#include <QTest>

#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

// Browsing the catalogue through the client: pages, search, type filters, sort orders and likes.
class TestE2eCatalogue : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<E2eCatalogue> catalogue;

    QJsonObject page(OnlineResourcesAPI *api, const QString &search, const QString &sort, int page = 1, int limit = 24,
                     const QString &type = QStringLiteral("all"))
    {
        return E2eCatalogue::listScripts(api, {{QStringLiteral("page"), page},
                                               {QStringLiteral("limit"), limit},
                                               {QStringLiteral("type"), type},
                                               {QStringLiteral("sort"), sort},
                                               {QStringLiteral("search"), search}});
    }

    void download(OnlineResourcesAPI *api, const QString &id, int times)
    {
        const QString directory = catalogue->newDirectory();
        for (int i = 0; i < times; ++i) {
            const auto outcome = E2eCatalogue::await(api, &OnlineResourcesAPI::scriptDownloaded,
                                                     [&] { api->downloadScript(id, directory); });
            QVERIFY2(!outcome.arguments.isEmpty(), qPrintable(outcome.error));
        }
    }

    bool like(OnlineResourcesAPI *api, const QString &id)
    {
        return !E2eCatalogue::await(api, &OnlineResourcesAPI::scriptLikeToggled, [&] {
                    api->toggleLike(id);
                }).arguments.isEmpty();
    }

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        catalogue = std::make_unique<E2eCatalogue>();
        QVERIFY2(catalogue->start(), qPrintable(catalogue->error()));
    }

    void cleanupTestCase()
    {
        catalogue.reset();
        home.reset();
    }

    void pagesAppendWithoutDuplicatesAndCountPages()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("pager"));
        QStringList uploaded;
        for (int i = 0; i < 7; ++i) {
            const QString id = catalogue->upload(author.get(), QStringLiteral("Pagewalk %1").arg(i),
                                                 QStringLiteral("pagewalk%1.gpc3").arg(i), "int x = 1;");
            QVERIFY(!id.isEmpty());
            uploaded.append(id);
        }
        auto visitor = catalogue->anonymous();
        QStringList seen;
        for (int number = 1; number <= 3; ++number) {
            const QJsonObject reply
                    = page(visitor.get(), QStringLiteral("pagewalk"), QStringLiteral("newest"), number, 3);
            QVERIFY(reply.value(QStringLiteral("success")).toBool());
            const QJsonObject pagination = reply.value(QStringLiteral("pagination")).toObject();
            QCOMPARE(pagination.value(QStringLiteral("current_page")).toInt(), number);
            QCOMPARE(pagination.value(QStringLiteral("total_pages")).toInt(), 3);
            QCOMPARE(pagination.value(QStringLiteral("total_scripts")).toInt(), 7);
            const QStringList ids = E2eCatalogue::idsOf(reply);
            QCOMPARE(ids.size(), number < 3 ? 3 : 1);
            for (const QString &id : ids)
                QVERIFY2(!seen.contains(id), "a record appeared on two pages");
            seen += ids;
        }
        std::reverse(uploaded.begin(), uploaded.end());
        QCOMPARE(seen, uploaded);
    }

    void searchMatchesNameDescriptionAndTags()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("searcher"));
        const QString byName
                = catalogue->upload(author.get(), QStringLiteral("Quasarbeam aim"), QStringLiteral("aim.gpc3"), "aim");
        const QString byTag
                = catalogue->upload(author.get(), QStringLiteral("Recoil helper"), QStringLiteral("recoil.gpc3"),
                                    "recoil", {{QStringLiteral("tags"), QStringLiteral("quasarbeam,fps")}});
        const QString byDescription
                = catalogue->upload(author.get(), QStringLiteral("Rapid fire"), QStringLiteral("rapid.gpc3"), "rapid",
                                    {{QStringLiteral("description"), QStringLiteral("Works with the Quasarbeam pad")}});
        const QString unrelated
                = catalogue->upload(author.get(), QStringLiteral("Anti recoil"), QStringLiteral("other.gpc3"), "other");
        auto visitor = catalogue->anonymous();
        const QStringList found
                = E2eCatalogue::idsOf(page(visitor.get(), QStringLiteral("QUASARBEAM"), QStringLiteral("oldest")));
        QCOMPARE(found, (QStringList{byName, byTag, byDescription}));
        QVERIFY(!found.contains(unrelated));
        const QJsonObject none = page(visitor.get(), QStringLiteral("quasarbeam-nowhere"), QStringLiteral("newest"));
        QVERIFY(E2eCatalogue::idsOf(none).isEmpty());
        QCOMPARE(none.value(QStringLiteral("pagination")).toObject().value(QStringLiteral("total_pages")).toInt(), 1);
    }

    void typeFilterSelectsSubtypes_data()
    {
        QTest::addColumn<QString>("type");
        QTest::addColumn<QStringList>("expectedFiles");
        QTest::newRow("all") << QStringLiteral("all")
                             << QStringList{QStringLiteral("gpc3"), QStringLiteral("gbc3"), QStringLiteral("py")};
        QTest::newRow("gpc3 covers gbc3")
                << QStringLiteral("gpc3") << QStringList{QStringLiteral("gpc3"), QStringLiteral("gbc3")};
        QTest::newRow("gbc3") << QStringLiteral("gbc3") << QStringList{QStringLiteral("gbc3")};
        QTest::newRow("python") << QStringLiteral("py") << QStringList{QStringLiteral("py")};
    }

    void typeFilterSelectsSubtypes()
    {
        QFETCH(QString, type);
        QFETCH(QStringList, expectedFiles);
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("typist"));
        const QString word = QStringLiteral("typecheck%1").arg(QTest::currentDataTag()).remove(QLatin1Char(' '));
        QStringList expected;
        for (const QString &extension : {QStringLiteral("gpc3"), QStringLiteral("gbc3"), QStringLiteral("py")}) {
            const QString id = catalogue->upload(author.get(), word + QLatin1Char(' ') + extension,
                                                 QStringLiteral("source.") + extension, "source");
            QVERIFY(!id.isEmpty());
            if (expectedFiles.contains(extension))
                expected.append(id);
        }
        auto visitor = catalogue->anonymous();
        const QJsonObject reply = page(visitor.get(), word, QStringLiteral("oldest"), 1, 24, type);
        QCOMPARE(E2eCatalogue::idsOf(reply), expected);
        QStringList types;
        for (const QJsonValue &record : reply.value(QStringLiteral("scripts")).toArray())
            types.append(record.toObject().value(QStringLiteral("type")).toString());
        QStringList expectedTypes = expectedFiles;
        expectedTypes.replaceInStrings(QStringLiteral("py"), QStringLiteral("python"));
        QCOMPARE(types, expectedTypes);
    }

    void sortOrdersFollowDatesAndPopularity()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("sorter"));
        const QString threeDownloads = catalogue->upload(author.get(), QStringLiteral("Sortable three downloads"),
                                                         QStringLiteral("three.gpc3"), "3");
        const QString oneLike = catalogue->upload(author.get(), QStringLiteral("Sortable one like"),
                                                  QStringLiteral("like.gpc3"), "like");
        const QString elevenDownloads = catalogue->upload(author.get(), QStringLiteral("Sortable eleven downloads"),
                                                          QStringLiteral("eleven.gpc3"), "11");
        auto fan = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("fan"));
        download(fan.get(), threeDownloads, 3);
        QVERIFY(like(fan.get(), oneLike));
        download(fan.get(), elevenDownloads, 11);

        const QString word = QStringLiteral("sortable");
        QCOMPARE(E2eCatalogue::idsOf(page(fan.get(), word, QStringLiteral("oldest"))),
                 (QStringList{threeDownloads, oneLike, elevenDownloads}));
        QCOMPARE(E2eCatalogue::idsOf(page(fan.get(), word, QStringLiteral("newest"))),
                 (QStringList{elevenDownloads, oneLike, threeDownloads}));
        // A like weighs ten downloads: 11 downloads > 1 like > 3 downloads.
        const QJsonObject popular = page(fan.get(), word, QStringLiteral("popular"));
        QCOMPARE(E2eCatalogue::idsOf(popular), (QStringList{elevenDownloads, oneLike, threeDownloads}));
        const QJsonArray records = popular.value(QStringLiteral("scripts")).toArray();
        QCOMPARE(records.at(0).toObject().value(QStringLiteral("downloads")).toInt(), 11);
        QCOMPARE(records.at(1).toObject().value(QStringLiteral("likes")).toInt(), 1);
        QCOMPARE(records.at(2).toObject().value(QStringLiteral("downloads")).toInt(), 3);

        QCOMPARE(E2eCatalogue::idsOf(page(fan.get(), word, QStringLiteral("my_liked"))), QStringList{oneLike});
        QVERIFY(E2eCatalogue::idsOf(page(author.get(), word, QStringLiteral("my_liked"))).isEmpty());
        auto visitor = catalogue->anonymous();
        const QJsonObject anonymousLiked = page(visitor.get(), word, QStringLiteral("my_liked"));
        QVERIFY(anonymousLiked.value(QStringLiteral("success")).toBool());
        QVERIFY(E2eCatalogue::idsOf(anonymousLiked).isEmpty());
    }

    void likesToggleAndFeedTheLikedList()
    {
        auto author = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("liked-author"));
        const QString id = catalogue->upload(author.get(), QStringLiteral("Likeable"), QStringLiteral("likeable.gpc3"),
                                             "like me");
        const QString other = catalogue->upload(author.get(), QStringLiteral("Ignored"), QStringLiteral("ignored.gpc3"),
                                                "ignore me");
        auto first = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("first-fan"));
        auto second = catalogue->signIn(E2eCatalogue::newDiscordId(), QStringLiteral("second-fan"));

        auto toggle = [](OnlineResourcesAPI *api, const QString &target) {
            return E2eCatalogue::await(api, &OnlineResourcesAPI::scriptLikeToggled, [&] { api->toggleLike(target); })
                    .arguments;
        };
        QCOMPARE(toggle(first.get(), id), (QList<QVariant>{id, true, 1}));
        QCOMPARE(toggle(second.get(), id), (QList<QVariant>{id, true, 2}));
        QCOMPARE(toggle(first.get(), id), (QList<QVariant>{id, false, 1}));

        auto likedBy = [](OnlineResourcesAPI *api) {
            const auto outcome = E2eCatalogue::await(api, &OnlineResourcesAPI::userLikedScriptsLoaded,
                                                     [&] { api->fetchUserLikedScripts(); });
            return outcome.arguments.isEmpty() ? QStringList{QStringLiteral("no answer")}
                                               : outcome.arguments.first().toStringList();
        };
        QCOMPARE(likedBy(first.get()), QStringList());
        QCOMPARE(likedBy(second.get()), QStringList{id});
        QVERIFY(!likedBy(second.get()).contains(other));

        auto details = E2eCatalogue::await(second.get(), &OnlineResourcesAPI::scriptDetailsLoaded,
                                           [&] { second->fetchScriptDetails(id); });
        QVERIFY2(!details.arguments.isEmpty(), qPrintable(details.error));
        QCOMPARE(details.arguments.first().toJsonObject().value(QStringLiteral("likes")).toInt(), 1);

        auto visitor = catalogue->anonymous();
        const auto refused = E2eCatalogue::await(visitor.get(), &OnlineResourcesAPI::scriptLikeToggled,
                                                 [&] { visitor->toggleLike(id); });
        QVERIFY(refused.arguments.isEmpty());
        QVERIFY(!refused.error.isEmpty());
    }
};

QTEST_MAIN(TestE2eCatalogue)
#include "tst_e2e_catalogue.moc"
