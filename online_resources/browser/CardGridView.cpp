#include "CardGridView.h"

#include "CardGridModel.h"
#include "ResourceCard.h"
#include "core/ResourceRecord.h"

#include <QDateTime>
#include <QJsonObject>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextStream>

#include <algorithm>

namespace Quorix {

namespace {

constexpr int columnPitch = ResourceCard::cardWidth + CardGridView::spacing;
constexpr int rowPitch = ResourceCard::cardHeight + CardGridView::spacing;

int rowOf(int y)
{
    return y < CardGridView::margin ? 0 : (y - CardGridView::margin) / rowPitch;
}

} // namespace

CardGridView::CardGridView(CardGridModel *model, QScrollArea *area, CardFactory factory, CardPreparer preparer)
    : QWidget(area)
    , model(model)
    , area(area)
    , factory(std::move(factory))
    , preparer(std::move(preparer))
    , messageLabel(new QLabel(this))
{
    // Messages can carry the server's own error text.
    messageLabel->setTextFormat(Qt::PlainText);
    messageLabel->setObjectName(QStringLiteral("gridMessage"));
    messageLabel->setAlignment(Qt::AlignCenter);
    messageLabel->setWordWrap(true);
    messageLabel->setStyleSheet(QStringLiteral("QLabel { font-size: 16px; color: #99aab5; padding: 50px; }"));
    messageLabel->hide();
    area->setWidget(this);
    connect(model, &CardGridModel::itemsReset, this, &CardGridView::onItemsReset);
    connect(model, &CardGridModel::itemsAppended, this, &CardGridView::onItemsAppended);
    connect(model, &CardGridModel::likesChanged, this, &CardGridView::onLikesChanged);
    connect(area->verticalScrollBar(), &QScrollBar::valueChanged, this, &CardGridView::updateBand);
    firstCardsReported = qEnvironmentVariableIsEmpty("QUORIX_REPORT_FIRST_CARDS");
}

QString CardGridView::cardKind(const QJsonObject &item)
{
    const QString type = item.value(QLatin1String("type")).toString().toLower();
    return type == QLatin1String("qenv") || type == QLatin1String("onnx") ? type : QStringLiteral("script");
}

QRect CardGridView::itemRect(int index) const
{
    return {margin + index % columnCount * columnPitch, margin + index / columnCount * rowPitch,
            ResourceCard::cardWidth, ResourceCard::cardHeight};
}

bool CardGridView::isShowingItems() const
{
    return !messageShown && model->count() > 0;
}

void CardGridView::showMessage(const QString &message)
{
    messageShown = true;
    for (int index : bound.keys())
        release(index);
    messageLabel->setText(message);
    messageLabel->setGeometry(rect());
    messageLabel->show();
    resizeToContent();
}

void CardGridView::hideMessage()
{
    messageShown = false;
    messageLabel->hide();
}

void CardGridView::reflow()
{
    columnCount = fittingColumns();
    for (auto it = bound.cbegin(); it != bound.cend(); ++it)
        it.value()->setGeometry(itemRect(it.key()));
    resizeToContent();
    updateBand();
}

QSize CardGridView::sizeHint() const
{
    return minimumSizeHint();
}

QSize CardGridView::minimumSizeHint() const
{
    const int rows = messageShown ? 0 : rowCount();
    const int width = 2 * margin + columnCount * ResourceCard::cardWidth + (columnCount - 1) * spacing;
    const int height = rows == 0 ? 0 : 2 * margin + rows * ResourceCard::cardHeight + (rows - 1) * spacing;
    return {width, height};
}

void CardGridView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    messageLabel->setGeometry(rect());
    updateBand();
}

void CardGridView::paintEvent(QPaintEvent *event)
{
    QWidget::paintEvent(event);
    // How quickly a start shows cards is measured by scripts through this line.
    if (!firstCardsReported && !bound.isEmpty()) {
        firstCardsReported = true;
        QTextStream(stderr) << "first cards painted at " << QDateTime::currentMSecsSinceEpoch() << '\n';
    }
}

void CardGridView::onItemsReset()
{
    hideMessage();
    for (int index : bound.keys())
        release(index);
    reflow();
    // A new list keeps the cards it reuses; cards of the previous list it has no place for go.
    for (QList<ResourceCard *> &waiting : pool) {
        for (ResourceCard *card : std::as_const(waiting)) {
            kinds.remove(card);
            card->deleteLater();
        }
        waiting.clear();
    }
}

void CardGridView::onItemsAppended()
{
    if (!messageShown)
        reflow();
}

void CardGridView::onLikesChanged()
{
    for (auto it = bound.cbegin(); it != bound.cend(); ++it)
        showLikeState(it.key(), it.value());
}

void CardGridView::showLikeState(int index, ResourceCard *card) const
{
    card->setLiked(model->isLiked(card->resourceId()));
    card->setLikeCount(int(ResourceRecord::counter(model->item(index), QStringLiteral("likes"))));
    card->updateLikeButton();
}

int CardGridView::fittingColumns() const
{
    const int available = area->viewport()->width() - 2 * margin;
    int fitting = std::max(1, (available + spacing) / columnPitch);
    while (fitting > 1 && fitting * ResourceCard::cardWidth + (fitting - 1) * spacing > available)
        --fitting;
    return std::min(fitting, maximumColumns);
}

int CardGridView::rowCount() const
{
    return (model->count() + columnCount - 1) / columnCount;
}

void CardGridView::resizeToContent()
{
    updateGeometry();
    // The scroll area takes the new height at once, so the scroll range and the band agree with the items.
    const QSize content = minimumSizeHint().expandedTo(area->viewport()->size());
    if (area->widgetResizable() && size() != content)
        resize(content);
}

// Cards exist for the rows within a screen above and below the viewport; the rest of the items are data only.
void CardGridView::updateBand()
{
    if (messageShown)
        return;
    const int screen = area->viewport()->height();
    const int top = area->verticalScrollBar()->value();
    const int first = rowOf(top - screen) * columnCount;
    const int end = std::min(model->count(), (rowOf(top + 2 * screen) + 1) * columnCount);
    for (int index : bound.keys()) {
        if (index < first || index >= end)
            release(index);
    }
    for (int index = first; index < end; ++index) {
        if (!bound.contains(index))
            acquire(index);
    }
}

int CardGridView::bandCapacity() const
{
    const int screen = std::max(area->viewport()->height(), rowPitch);
    return (3 * screen / rowPitch + 2) * columnCount;
}

void CardGridView::release(int index)
{
    ResourceCard *card = bound.take(index);
    card->hide();
    QList<ResourceCard *> &waiting = pool[kinds.value(card)];
    if (waiting.size() < bandCapacity()) {
        waiting.append(card);
        return;
    }
    kinds.remove(card);
    // Later rather than now: the card may be the sender of the signal that changed the items.
    card->deleteLater();
}

ResourceCard *CardGridView::acquire(int index)
{
    const QJsonObject item = model->item(index);
    const QString kind = cardKind(item);
    QList<ResourceCard *> &waiting = pool[kind];
    ResourceCard *card = nullptr;
    if (waiting.isEmpty()) {
        card = factory(item, this);
        kinds.insert(card, kind);
    } else {
        card = waiting.takeLast();
        card->bind(item);
    }
    bound.insert(index, card);
    card->setGeometry(itemRect(index));
    preparer(card);
    showLikeState(index, card);
    card->show();
    return card;
}

} // namespace Quorix
