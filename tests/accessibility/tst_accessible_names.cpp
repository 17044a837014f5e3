#include "BrowserTestData.h"
#include "CatalogueServerFixture.h"
#include "DetailsTestRecords.h"
#include "ModalAnswerer.h"
#include "TemporaryHome.h"

#include "access/AuthorizationManagementDialog.h"
#include "api/OnlineResourcesAPI.h"
#include "browser/CardGridModel.h"
#include "browser/CardGridView.h"
#include "browser/DownloadProgressDialog.h"
#include "browser/OnlineResourcesWidget.h"
#include "browser/QenvCard.h"
#include "browser/ScriptCard.h"
#include "details/ResourceDetailsDialog.h"
#include "publish/ScriptSelectionDialog.h"
#include "publish/UploadDialog.h"
#include "pyenv/PythonEnvironmentManager.h"
#include "pyenv/dialogs/CreateEnvironmentDialog.h"
#include "pyenv/dialogs/InstallPackageDialog.h"
#include "pyenv/dialogs/PythonEnvironmentDialog.h"

#include <DemoCatalogue.h>
#include <PluginHost.h>
#include <SettingsManager.h>

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QAbstractSpinBox>
#include <QAccessible>
#include <QApplication>
#include <QColor>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QMetaEnum>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>
#include <QTextEdit>

#include <functional>
#include <memory>

using namespace Quorix;
using namespace Quorix::Testing;

namespace {

// Menus and item views can nest deeply, but no window of ours comes near this; it only stops a cycle.
constexpr int deepestLevel = 64;

bool isReachable(QAccessibleInterface *element)
{
    const QAccessibleActionInterface *actions = element->actionInterface();
    return element->state().focusable || (actions && !actions->actionNames().isEmpty());
}

void visitShown(QAccessibleInterface *element, int level, const std::function<bool(QAccessibleInterface *)> &visit)
{
    if (!element || !element->isValid() || level > deepestLevel || element->state().invisible)
        return;
    if (!visit(element))
        return;
    for (int index = 0; index < element->childCount(); ++index)
        visitShown(element->child(index), level + 1, visit);
}

QString describe(QAccessibleInterface *element)
{
    const QObject *object = element->object();
    return QStringLiteral("%1 '%2' (%3)")
            .arg(QString::fromLatin1(QMetaEnum::fromType<QAccessible::Role>().valueToKey(element->role())),
                 object ? object->objectName() : QString(),
                 object ? QString::fromLatin1(object->metaObject()->className()) : QStringLiteral("item"));
}

// Every shown element under root that can take focus or offers an action yet has no name, each described by its role,
// object name and class so that a failure points at the widget.
QStringList unnamedControls(QObject *root)
{
    QStringList unnamed;
    visitShown(QAccessible::queryAccessibleInterface(root), 0, [&unnamed](QAccessibleInterface *element) {
        if (isReachable(element) && element->text(QAccessible::Name).trimmed().isEmpty())
            unnamed.append(describe(element));
        return true;
    });
    return unnamed;
}

// The first shown element under root with this role and name, or null.
QAccessibleInterface *findElement(QObject *root, int role, const QString &name)
{
    QAccessibleInterface *found = nullptr;
    visitShown(QAccessible::queryAccessibleInterface(root), 0, [&](QAccessibleInterface *element) {
        if (!found && element->role() == role && element->text(QAccessible::Name) == name)
            found = element;
        return !found;
    });
    return found;
}

// What a screen reader announces as the element's name: the caption of the label that labels it, when one does (on
// Linux a combo box's own name is its current item), else its name.
QString spokenName(QAccessibleInterface *element)
{
    const auto labels = element->relations(QAccessible::Label);
    if (labels.isEmpty())
        return element->text(QAccessible::Name);
    QString caption = labels.first().first->text(QAccessible::Name).trimmed();
    if (caption.endsWith(QLatin1Char(':')))
        caption.chop(1);
    return caption;
}

struct DialogContext
{
    OnlineResourcesAPI *api;
    PythonEnvironmentManager *environments;
    QString directory;
};

using DialogFactory = std::function<QDialog *(const DialogContext &)>;

QString writeFile(const QString &directory, const QString &name, const QByteArray &content)
{
    QFile file(QDir(directory).filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return file.fileName();
}

QDialog *details(DetailsTestRecords::Kind kind)
{
    ResourceDetailsDialog *dialog = DetailsTestRecords::createDialog(kind);
    dialog->setCurrentUser(DetailsTestRecords::authorId, true);
    dialog->setRecord(DetailsTestRecords::record(kind));
    return dialog;
}

QDialog *uploadForm(const DialogContext &context, const QString &fileName)
{
    auto *form = new UploadDialog;
    form->setApi(context.api);
    form->setFile(writeFile(context.directory, fileName, "main {}"));
    return form;
}

// The visible widgets of a window that match, as "objectName class" so that a failure points at them.
QStringList visibleWhere(QWidget *window, const std::function<bool(QWidget *)> &matches)
{
    QStringList found;
    for (QWidget *widget : window->findChildren<QWidget *>()) {
        if (widget->isVisible() && matches(widget))
            found.append(widget->objectName() + ' ' + widget->metaObject()->className());
    }
    return found;
}

// Widgets a user works with must be reachable with Tab as well as with the pointer.
bool isPointerOnly(QWidget *widget)
{
    const bool control = qobject_cast<QAbstractButton *>(widget) || qobject_cast<QLineEdit *>(widget)
                         || qobject_cast<QComboBox *>(widget) || qobject_cast<QAbstractSpinBox *>(widget)
                         || (qobject_cast<QAbstractItemView *>(widget) && !widget->inherits("QHeaderView"))
                         || qobject_cast<QTextEdit *>(widget);
    return control && !(widget->focusPolicy() & Qt::TabFocus) && !widget->parentWidget()->inherits("QAbstractSpinBox")
           && !widget->inherits("QLineEditIconButton");
}

// An editor that types Tab as a character keeps keyboard users from leaving it.
bool trapsTab(QWidget *widget)
{
    const auto *text = qobject_cast<QTextEdit *>(widget);
    const auto *plain = qobject_cast<QPlainTextEdit *>(widget);
    return (text && !text->isReadOnly() && !text->tabChangesFocus())
           || (plain && !plain->isReadOnly() && !plain->tabChangesFocus());
}

// A caption ends in a colon and names the field beside it; without a buddy nothing ties the two together.
bool isCaptionWithoutBuddy(QWidget *widget)
{
    const auto *label = qobject_cast<QLabel *>(widget);
    return label && label->text().trimmed().endsWith(':') && !label->buddy();
}

bool isDefaultButton(QWidget *widget)
{
    const auto *button = qobject_cast<QPushButton *>(widget);
    return button && button->isDefault();
}

ResourceDetailsDialog *visibleDetails()
{
    const QList<QWidget *> windows = QApplication::topLevelWidgets();
    for (QWidget *window : windows) {
        if (auto *dialog = qobject_cast<ResourceDetailsDialog *>(window); dialog && dialog->isVisible())
            return dialog;
    }
    return nullptr;
}

QString detailsTitle()
{
    ResourceDetailsDialog *dialog = visibleDetails();
    return dialog ? dialog->findChild<QLabel *>(QStringLiteral("titleLabel"))->text() : QString();
}

} // namespace

Q_DECLARE_METATYPE(DialogFactory)

class AccessibleNamesTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        home = std::make_unique<TemporaryHome>();
        catalogue = std::make_unique<CatalogueServerFixture>(true);
        QVERIFY2(catalogue->start(), qPrintable(catalogue->error()));
        qputenv("QUORIX_SERVER_URL", catalogue->origin().toUtf8());
        token = catalogue->signIn(QString::fromLatin1(DemoCatalogue::demoUserDiscordId),
                                  QString::fromLatin1(DemoCatalogue::demoUsername));
        QVERIFY(!token.isEmpty());
        host.signIn({QString::fromLatin1(DemoCatalogue::demoUserDiscordId),
                     QString::fromLatin1(DemoCatalogue::demoUsername),
                     QString::fromLatin1(DemoCatalogue::demoGlobalName), QString(), token});
        SettingsManager::instance()->setValue(QStringLiteral("developerMode"), true);

        api = std::make_unique<OnlineResourcesAPI>();
        // With uv in place the environments window lists what is there instead of fetching uv.
        environments = PythonEnvironmentManager::instance();
        QVERIFY(QDir().mkpath(QFileInfo(environments->uvPath()).path()));
        QFile uv(environments->uvPath());
        QVERIFY(uv.open(QIODevice::WriteOnly));

        page = std::make_unique<OnlineResourcesWidget>(nullptr);
        page->setPluginHost(&host);
        page->setSettingsManager(SettingsManager::instance());
        page->resize(1300, 900);
        page->show();
        QTRY_VERIFY_WITH_TIMEOUT(!page->findChildren<ScriptCard *>().isEmpty(), 10000);
    }

    void cleanupTestCase()
    {
        page.reset();
    }

    void pageHasNoUnnamedControls()
    {
        const QStringList unnamed = unnamedControls(page.get());
        QVERIFY2(unnamed.isEmpty(), qPrintable(unnamed.join(QLatin1String("\n"))));
    }

    void pageControlsSayWhatTheyDo_data()
    {
        QTest::addColumn<QString>("objectName");
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("described");
        QTest::newRow("search box") << "searchEdit"
                                    << "Search" << true;
        QTest::newRow("kind filter") << "typeFilter"
                                     << "Type" << false;
        QTest::newRow("sort order") << "sortCombo"
                                    << "Sort by" << false;
        QTest::newRow("icon-only refresh") << "refreshButton"
                                           << "Refresh" << true;
        QTest::newRow("publish") << "uploadButton"
                                 << "Publish Script" << false;
    }

    void pageControlsSayWhatTheyDo()
    {
        QFETCH(QString, objectName);
        QFETCH(QString, name);
        QFETCH(bool, described);
        auto *control = page->findChild<QWidget *>(objectName);
        QVERIFY(control);
        QAccessibleInterface *element = QAccessible::queryAccessibleInterface(control);
        QCOMPARE(spokenName(element), name);
        QCOMPARE(!element->text(QAccessible::Description).isEmpty(), described);
    }

    void cardElementsCarryTheResource_data()
    {
        QTest::addColumn<QJsonObject>("record");
        QTest::addColumn<int>("role");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("description");
        QJsonObject longName = BrowserTestData::script(QStringLiteral("s1"));
        longName.insert(QStringLiteral("name"), QStringLiteral("Fighting Game Combo Macro for Every Character"));
        QJsonObject oneLike = BrowserTestData::script(QStringLiteral("s2"));
        oneLike.insert(QStringLiteral("likes"), 1);
        const QJsonObject script = BrowserTestData::script(QStringLiteral("s3"));
        const QJsonObject environment = BrowserTestData::environment(QStringLiteral("e1"));

        QTest::newRow("elided name reads in full") << longName << int(QAccessible::StaticText)
                                                   << longName.value(QStringLiteral("name")).toString() << QString();
        QTest::newRow("thumbnail named after it")
                << script << int(QAccessible::StaticText) << QStringLiteral("Picture of Item s3") << QString();
        QTest::newRow("download names what it fetches")
                << script << int(QAccessible::Button) << QStringLiteral("Download Item s3") << QString();
        QTest::newRow("install names what it installs")
                << environment << int(QAccessible::Button) << QStringLiteral("Install Item e1") << QString();
        QTest::newRow("one like") << oneLike << int(QAccessible::CheckBox) << QStringLiteral("Like")
                                  << QStringLiteral("1 like");
    }

    void cardElementsCarryTheResource()
    {
        QFETCH(QJsonObject, record);
        QFETCH(int, role);
        QFETCH(QString, name);
        QFETCH(QString, description);
        std::unique_ptr<ResourceCard> card;
        if (record.value(QStringLiteral("type")) == QLatin1String("qenv"))
            card = std::make_unique<QenvCard>(record);
        else
            card = std::make_unique<ScriptCard>(record);
        card->updateLikeButton();
        card->show();

        QAccessibleInterface *element = findElement(card.get(), role, name);
        QVERIFY2(element, qPrintable(name));
        if (!description.isEmpty())
            QCOMPARE(element->text(QAccessible::Description), description);
    }

    // Items not built as cards still read as resources, and pressing one opens it as a click on its card would.
    void gridItemsReadAndOpenAsResources()
    {
        auto *grid = page->findChild<CardGridView *>();
        QAccessibleInterface *list = QAccessible::queryAccessibleInterface(grid);
        QCOMPARE(list->role(), QAccessible::List);
        QTRY_COMPARE(list->childCount(), grid->items()->count());
        const int last = list->childCount() - 1;
        QVERIFY2(!grid->cardAt(last), "the last loaded item should be outside the band for this check");
        // A card built ahead of the scroll, below the viewport, is as offscreen as an item without one.
        const auto builtOutOfView = [grid] {
            for (int index = 0; index < grid->items()->count(); ++index) {
                const QWidget *card = grid->cardAt(index);
                if (card && card->isVisible() && card->visibleRegion().isEmpty())
                    return index;
            }
            return -1;
        };
        int built = -1;
        QTRY_VERIFY((built = builtOutOfView()) > 0);
        for (int index : {0, built, last}) {
            QAccessibleInterface *item = list->child(index);
            const QJsonObject record = grid->items()->item(index);
            QCOMPARE(item->role(), QAccessible::ListItem);
            QCOMPARE(list->indexOfChild(item), index);
            QCOMPARE(item->text(QAccessible::Name), record.value(QStringLiteral("name")).toString());
            const QString description = item->text(QAccessible::Description);
            QVERIFY2(description.contains(record.value(QStringLiteral("author"))
                                                  .toObject()
                                                  .value(QStringLiteral("username"))
                                                  .toString())
                             && description.contains(QStringLiteral("%1 downloads")
                                                             .arg(record.value(QStringLiteral("downloads")).toInt())),
                     qPrintable(description));
            QVERIFY(item->state().focusable);
            QCOMPARE(bool(item->state().offscreen), index != 0);
        }
        QAccessibleInterface *item = list->child(last);
        item->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
        QTRY_COMPARE(detailsTitle(), item->text(QAccessible::Name));
        visibleDetails()->close();
    }

    void keyboardAloneOpensAndLikesTheThirtiethCard()
    {
        auto *grid = page->findChild<CardGridView *>();
        // A fresh list, as after signing in: nothing current, the first page at the top.
        QMetaObject::invokeMethod(page.get(), "onRefreshClicked");
        QTRY_VERIFY(grid->items()->count() > 0 && grid->isShowingItems());
        QCOMPARE(grid->currentIndex(), -1);
        QApplication::setActiveWindow(page.get());
        auto *search = page->findChild<QWidget *>(QStringLiteral("searchEdit"));
        search->setFocus();
        for (int step = 0; step < 10 && QApplication::focusWidget() != grid; ++step)
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        QCOMPARE(QApplication::focusWidget(), grid);
        QCOMPARE(grid->currentIndex(), 0);

        // Down until the 30th card's row, paging in more on the way; then along that row.
        const auto rowOf = [grid](int index) { return grid->itemRect(index).y(); };
        for (int step = 0; step < 40 && rowOf(grid->currentIndex()) < rowOf(29); ++step) {
            QTest::keyClick(grid, Qt::Key_Down);
            QTRY_VERIFY(grid->items()->count() > 29 || rowOf(grid->currentIndex()) < rowOf(grid->items()->count() - 1));
        }
        for (int step = 0; step < 6 && grid->currentIndex() != 29; ++step)
            QTest::keyClick(grid, grid->currentIndex() < 29 ? Qt::Key_Right : Qt::Key_Left);
        QCOMPARE(grid->currentIndex(), 29);
        QVERIFY(grid->cardAt(29)
                && grid->cardAt(29)->visibleRegion().boundingRect().size() == grid->cardAt(29)->size());
        const QString name = grid->items()->item(29).value(QStringLiteral("name")).toString();

        QTest::keyClick(grid, Qt::Key_Return);
        QTRY_COMPARE(detailsTitle(), name);
        ResourceDetailsDialog *dialog = visibleDetails();
        QApplication::setActiveWindow(dialog);
        auto *like = dialog->findChild<QPushButton *>(QStringLiteral("likeButton"));
        QTRY_VERIFY(like->isEnabled());
        for (int step = 0; step < 20 && QApplication::focusWidget() != like; ++step)
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        QCOMPARE(QApplication::focusWidget(), like);
        const QString before = like->text();
        QTest::keyClick(like, Qt::Key_Space);
        QTRY_VERIFY(like->text() != before);

        QTest::keyClick(like, Qt::Key_Escape);
        QTRY_VERIFY(!dialog->isVisible());
        // The window system gives the page its activation back; the page must still have the grid focused.
        QApplication::setActiveWindow(page.get());
        QTRY_COMPARE(QApplication::focusWidget(), grid);
        QCOMPARE(grid->currentIndex(), 29);
    }

    void dialogsWorkWithoutPointer_data()
    {
        QTest::addColumn<DialogFactory>("open");
        QTest::addColumn<QString>("defaultButton");
        QTest::newRow("script details") << DialogFactory([](const DialogContext &) {
            return details(DetailsTestRecords::Script);
        }) << "downloadButton";
        QTest::newRow("environment details") << DialogFactory([](const DialogContext &) {
            return details(DetailsTestRecords::Environment);
        }) << "installButton";
        QTest::newRow("weights details") << DialogFactory([](const DialogContext &) {
            return details(DetailsTestRecords::Weights);
        }) << "downloadButton";
        QTest::newRow("download progress") << DialogFactory([](const DialogContext &) {
            auto *dialog = new DownloadProgressDialog(nullptr);
            dialog->begin(QStringLiteral("Downloading..."));
            return dialog;
        }) << QString();
        QTest::newRow("script selection") << DialogFactory([](const DialogContext &context) {
            auto *dialog = new ScriptSelectionDialog(context.api);
            dialog->setStartDirectory(context.directory);
            return dialog;
        }) << "proceedButton";
        QTest::newRow("upload script") << DialogFactory([](const DialogContext &context) {
            return uploadForm(context, QStringLiteral("form.gpc3"));
        }) << "uploadButton";
        QTest::newRow("upload environment") << DialogFactory([](const DialogContext &context) {
            return uploadForm(context, QStringLiteral("form.qenv"));
        }) << "uploadButton";
        QTest::newRow("upload weights") << DialogFactory([](const DialogContext &context) {
            return uploadForm(context, QStringLiteral("form.onnx"));
        }) << "uploadButton";
        QTest::newRow("access list") << DialogFactory([](const DialogContext &context) {
            auto *dialog
                    = new AuthorizationManagementDialog(context.api, QStringLiteral("res-1"), QStringLiteral("Res"));
            dialog->setAttribute(Qt::WA_DeleteOnClose, false);
            return dialog;
        }) << "grantButton";
        QTest::newRow("environments") << DialogFactory([](const DialogContext &context) {
            return new PythonEnvironmentDialog(context.environments);
        }) << "selectButton";
        QTest::newRow("create environment") << DialogFactory([](const DialogContext &) {
            return new CreateEnvironmentDialog;
        }) << "createButton";
        QTest::newRow("install package") << DialogFactory([](const DialogContext &) {
            return new InstallPackageDialog;
        }) << "installButton";
    }

    void dialogsWorkWithoutPointer()
    {
        QFETCH(DialogFactory, open);
        QFETCH(QString, defaultButton);
        std::unique_ptr<QDialog> dialog(open({api.get(), environments, home->path()}));
        dialog->show();
        QVERIFY(QTest::qWaitForWindowExposed(dialog.get()));

        const QStringList problems = unnamedControls(dialog.get()) + visibleWhere(dialog.get(), isPointerOnly)
                                     + visibleWhere(dialog.get(), trapsTab)
                                     + visibleWhere(dialog.get(), isCaptionWithoutBuddy);
        QVERIFY2(problems.isEmpty(), qPrintable(problems.join('\n')));
        QCOMPARE(visibleWhere(dialog.get(), isDefaultButton),
                 defaultButton.isEmpty() ? QStringList() : QStringList{defaultButton + " QPushButton"});

        QApplication::setActiveWindow(dialog.get());
        QWidget *focus = dialog->focusWidget() ? dialog->focusWidget() : dialog.get();
        QTest::keyClick(focus, Qt::Key_Escape);
        QTRY_VERIFY(!dialog->isVisible());
    }

    void imagePickerOpensFromTheKeyboard_data()
    {
        QTest::addColumn<int>("key");
        QTest::newRow("space") << int(Qt::Key_Space);
        QTest::newRow("return") << int(Qt::Key_Return);
        QTest::newRow("enter") << int(Qt::Key_Enter);
    }

    void imagePickerOpensFromTheKeyboard()
    {
        QFETCH(int, key);
        const QString picture = writeFile(home->path(), QStringLiteral("header.png"),
                                          BrowserTestData::png({270, 100}, QColor(0x58, 0x65, 0xf2)));
        std::unique_ptr<QDialog> form(uploadForm({api.get(), environments, home->path()}, QStringLiteral("pick.gpc3")));
        form->show();
        QVERIFY(QTest::qWaitForWindowExposed(form.get()));
        auto *picker = form->findChild<QLabel *>(QStringLiteral("imagePicker"));
        QVERIFY(picker->focusPolicy() & Qt::TabFocus);

        ModalAnswerer chooser;
        chooser.chooseFile(picture);
        QTest::keyClick(picker, Qt::Key(key));
        QVERIFY(chooser.answered());
        QVERIFY(!picker->pixmap().isNull());
    }

private:
    std::unique_ptr<TemporaryHome> home;
    std::unique_ptr<CatalogueServerFixture> catalogue;
    std::unique_ptr<OnlineResourcesAPI> api;
    PythonEnvironmentManager *environments = nullptr;
    std::unique_ptr<OnlineResourcesWidget> page;
    PluginHost host;
    QString token;
};

QTEST_MAIN(AccessibleNamesTest)
#include "tst_accessible_names.moc"
