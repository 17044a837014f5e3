#pragma once

#include <QHash>
#include <QList>
#include <QRect>
#include <QString>
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
// number of items loaded.
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

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void onItemsReset();
    void onItemsAppended();
    void onLikesChanged();
    int fittingColumns() const;
    int rowCount() const;
    void resizeToContent();
    void updateBand();
    void release(int index);
    ResourceCard *acquire(int index);
    void hideMessage();
    void showLikeState(int index, ResourceCard *card) const;
    int bandCapacity() const;

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
};

} // namespace Quorix
