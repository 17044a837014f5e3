#pragma once

#include <QHash>
#include <QList>
#include <QRect>
#include <QString>
#include <QTimer>
#include <QWidget>

#include <functional>

class QLabel;
class QJsonObject;
class QScrollArea;

namespace Quorix {

class CardGridModel;
class ResourceCard;

// The catalogue grid inside its scroll area: every loaded item has a place in rows of fixed-size cards, but card
// widgets exist only for the rows in view and about a screen above and below. Cards leaving that band wait in a
// pool and come back bound to other items of their kind, so the cost of the grid follows the screen, not the
// number of items loaded. Cards for the rows in view are made at once; the rest of the band follows a row at a
// time while the event loop is idle, so a page arriving or a scroll step never waits for cards off screen.
//
// The grid is one keyboard stop with a current item: arrows move by row and column, Home/End and Page Up/Down
// jump, Enter opens the item as a click does. Assistive tools see one item per loaded resource (CardGridAccessible).
class CardGridView : public QWidget
{
    Q_OBJECT

public:
    // Makes a card for the record's kind, connected to the page.
    using CardFactory = std::function<ResourceCard *(const QJsonObject &item, QWidget *parent)>;
    // Brings a card that was just made or bound up to the page's state (like, sign-in).
    using CardPreparer = std::function<void(ResourceCard *card)>;

    static constexpr int margin = 10;
    static constexpr int spacing = 15;
    static constexpr int maximumColumns = 6;

    CardGridView(CardGridModel *model, QScrollArea *area, CardFactory factory, CardPreparer preparer);

    // "qenv", "onnx" or "script": which kind of card shows the record.
    static QString cardKind(const QJsonObject &item);

    // Where the item at `index` sits in the grid, whether or not it has a card.
    QRect itemRect(int index) const;

    // Whether cards stand for loaded items now, rather than a message or nothing.
    bool isShowingItems() const;
    // Replaces the cards by a centred message until the items change again.
    void showMessage(const QString &message);

    // Recounts the columns for the viewport's width and places every card again.
    void reflow();

    const CardGridModel *items() const { return model; }
    // The loaded item the keyboard is on, or -1 before the grid was entered.
    int currentIndex() const { return current; }
    // Makes `index` current and scrolls it into view.
    void setCurrentIndex(int index);
    // Opens the item as a click on its card does.
    void activateItem(int index);
    // Where the item sits on screen now, or an empty rectangle outside the band.
    QRect itemScreenRect(int index) const;
    // The card showing the item, if it is in the band.
    ResourceCard *cardAt(int index) const { return bound.value(index); }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    // Item ranges [first, end) of the cards shown now and of the band kept around them.
    struct Band
    {
        int visibleFirst = 0;
        int visibleEnd = 0;
        int first = 0;
        int end = 0;
    };

    void onItemsReset();
    void onItemsAppended();
    void onLikesChanged();
    int fittingColumns() const;
    int rowCount() const;
    void resizeToContent();
    Band band() const;
    void updateBand();
    void bindNextBandRow();
    void release(int index);
    ResourceCard *acquire(int index);
    void hideMessage();
    void showLikeState(int index, ResourceCard *card) const;
    int bandCapacity() const;
    int rowsPerScreen() const;
    int targetOfKey(int key) const;
    void scrollToItem(int index);
    void makeCurrent(int index);
    void updateFocusRing(int index);
    void announceCurrent();

    CardGridModel *model;
    QScrollArea *area;
    CardFactory factory;
    CardPreparer preparer;
    int columnCount = 1;
    bool messageShown = false;
    QHash<int, ResourceCard *> bound;
    QHash<QString, QList<ResourceCard *>> pool;
    QHash<const ResourceCard *, QString> kinds;
    QLabel *messageLabel = nullptr;
    bool firstCardsReported = false;
    int current = -1;
    QTimer bandFiller;
};

} // namespace Quorix
