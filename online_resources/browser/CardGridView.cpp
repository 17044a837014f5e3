#include "CardGridView.h"

#include "CardGridAccessible.h"
#include "CardGridModel.h"
#include "ResourceCard.h"
#include "core/ResourceRecord.h"

#include <QAccessible>
#include <QDateTime>
#include <QJsonObject>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextStream>

#include <algorithm>

namespace Quorix {

namespace {

constexpr int columnPitch = ResourceCard::cardWidth + CardGridView::spacing;
constexpr int rowPitch = ResourceCard::cardHeight + CardGridView::spacing;
constexpr int focusRingWidth = 3;
constexpr int focusRingGap = 5;

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
    // Before anything that raises an accessibility event: the first query makes the interface Qt keeps.
    static const bool accessibleInstalled = [] {
        QAccessible::installFactory(&CardGridAccessible::create);
        return true;
    }();
    Q_UNUSED(accessibleInstalled)
    setFocusPolicy(Qt::StrongFocus);
    // The grid is the one keyboard stop; the scroll area around it would be a second, invisible one.
    area->setFocusPolicy(Qt::NoFocus);
    setAccessibleName(tr("Resources"));
    // Rows are added below: growing must not repaint the cards already on screen.
    setAttribute(Qt::WA_StaticContents);
    bandFiller.setSingleShot(true);
    connect(&bandFiller, &QTimer::timeout, this, &CardGridView::bindNextBandRow);
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
    // The viewport changes width without the page resizing too: a scroll bar comes or goes, or the scroll area
    // gets its real size only when it is first shown after loading.
    if (fittingColumns() != columnCount)
        reflow();
    else
        updateBand();
}

void CardGridView::paintEvent(QPaintEvent *event)
{
    QWidget::paintEvent(event);
    if (hasFocus() && current >= 0 && current < model->count() && !messageShown) {
        // Drawn in the gap around the card, where the card's own painting cannot cover it.
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(palette().color(QPalette::Highlight), focusRingWidth));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(itemRect(current)).adjusted(-focusRingGap, -focusRingGap, focusRingGap,
                                                                    focusRingGap),
                                18 + focusRingGap, 18 + focusRingGap);
    }
    // How quickly a start shows cards is measured by scripts through this line.
    if (!firstCardsReported && !bound.isEmpty()) {
        firstCardsReported = true;
        QTextStream(stderr) << "first cards painted at " << QDateTime::currentMSecsSinceEpoch() << '\n';
    }
}

void CardGridView::onItemsReset()
{
    hideMessage();
    updateFocusRing(-1);
    current = -1;
    if (QAccessible::isActive()) {
        QAccessibleTableModelChangeEvent event(this, QAccessibleTableModelChangeEvent::ModelReset);
        QAccessible::updateAccessibility(&event);
    }
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
CardGridView::Band CardGridView::band() const
{
    const int screen = area->viewport()->height();
    const int top = area->verticalScrollBar()->value();
    const int count = model->count();
    Band rows;
    rows.visibleFirst = std::min(count, rowOf(top) * columnCount);
    rows.visibleEnd = std::min(count, (rowOf(top + screen) + 1) * columnCount);
    rows.first = std::min(count, rowOf(top - screen) * columnCount);
    rows.end = std::min(count, (rowOf(top + 2 * screen) + 1) * columnCount);
    return rows;
}

void CardGridView::updateBand()
{
    if (messageShown)
        return;
    const Band rows = band();
    for (int index : bound.keys()) {
        if (index < rows.first || index >= rows.end)
            release(index);
    }
    for (int index = rows.visibleFirst; index < rows.visibleEnd; ++index) {
        if (!bound.contains(index))
            acquire(index);
    }
    if (bound.size() < rows.end - rows.first)
        bandFiller.start(0);
}

// The rows below the view come first: that is where reading goes.
void CardGridView::bindNextBandRow()
{
    if (messageShown)
        return;
    const Band rows = band();
    QList<int> order;
    for (int index = rows.visibleEnd; index < rows.end; ++index)
        order.append(index);
    for (int index = rows.visibleFirst - 1; index >= rows.first; --index)
        order.append(index);
    int made = 0;
    for (int index : std::as_const(order)) {
        if (bound.contains(index))
            continue;
        if (made == columnCount) {
            bandFiller.start(0);
            return;
        }
        acquire(index);
        ++made;
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
        connect(card, &ResourceCard::clicked, this, [this, card] { makeCurrent(bound.key(card, -1)); });
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

void CardGridView::setCurrentIndex(int index)
{
    if (model->count() == 0 || messageShown)
        return;
    index = std::clamp(index, 0, model->count() - 1);
    scrollToItem(index);
    makeCurrent(index);
}

void CardGridView::makeCurrent(int index)
{
    if (index < 0)
        return;
    updateFocusRing(current);
    current = index;
    updateFocusRing(current);
    announceCurrent();
}

void CardGridView::activateItem(int index)
{
    if (index < 0 || index >= model->count() || messageShown)
        return;
    scrollToItem(index);
    if (ResourceCard *card = bound.value(index))
        card->activate();
}

QRect CardGridView::itemScreenRect(int index) const
{
    if (index < 0 || index >= model->count())
        return {};
    return QRect(mapToGlobal(itemRect(index).topLeft()), itemRect(index).size());
}

void CardGridView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        activateItem(current);
        return;
    }
    const int target = targetOfKey(event->key());
    if (target < 0 || model->count() == 0) {
        QWidget::keyPressEvent(event);
        return;
    }
    setCurrentIndex(target);
}

int CardGridView::targetOfKey(int key) const
{
    const int last = model->count() - 1;
    const int from = std::max(current, 0);
    const int page = rowsPerScreen() * columnCount;
    switch (key) {
    case Qt::Key_Left:
        return std::max(from - 1, 0);
    case Qt::Key_Right:
        return std::min(from + 1, last);
    case Qt::Key_Up:
        return from >= columnCount ? from - columnCount : from;
    case Qt::Key_Down:
        return from / columnCount < last / columnCount ? std::min(from + columnCount, last) : from;
    case Qt::Key_PageUp:
        return from >= page ? from - page : from % columnCount;
    case Qt::Key_PageDown:
        return std::min(from + page, last);
    case Qt::Key_Home:
        return 0;
    case Qt::Key_End:
        return last;
    default:
        return -1;
    }
}

int CardGridView::rowsPerScreen() const
{
    return std::max(1, area->viewport()->height() / rowPitch);
}

// Reaching the bottom this way loads the next page, as scrolling there does.
void CardGridView::scrollToItem(int index)
{
    const QRect rect = itemRect(index).adjusted(0, -margin, 0, margin);
    QScrollBar *bar = area->verticalScrollBar();
    const int height = area->viewport()->height();
    if (rect.top() < bar->value())
        bar->setValue(rect.top());
    else if (rect.bottom() > bar->value() + height)
        bar->setValue(std::min(rect.top(), rect.bottom() - height));
    updateBand();
}

void CardGridView::updateFocusRing(int index)
{
    if (index >= 0)
        update(itemRect(index).adjusted(-margin, -margin, margin, margin));
}

void CardGridView::announceCurrent()
{
    if (!hasFocus() || current < 0 || !QAccessible::isActive())
        return;
    QAccessibleEvent event(this, QAccessible::Focus);
    event.setChild(current);
    QAccessible::updateAccessibility(&event);
}

void CardGridView::focusInEvent(QFocusEvent *event)
{
    QWidget::focusInEvent(event);
    // A click names the card itself; the keyboard starts on the first card in view.
    if ((current < 0 || current >= model->count()) && event->reason() != Qt::MouseFocusReason)
        setCurrentIndex(band().visibleFirst);
    else {
        updateFocusRing(current);
        announceCurrent();
    }
}

void CardGridView::focusOutEvent(QFocusEvent *event)
{
    QWidget::focusOutEvent(event);
    updateFocusRing(current);
}

} // namespace Quorix
