#include "DemoArtwork.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QStandardPaths>
#include <QtMath>

namespace Quorix {

namespace {

constexpr int width = 1100;
constexpr int height = 560;
// Part of every cache name: a change to the drawing must not show pictures of the previous one.
constexpr char drawingVersion[] = "1";

QString cachedPath(const QString &title, const QString &kind, quint32 seed, const char *variant)
{
    const QByteArray key = QStringLiteral("%1|%2|%3|%4|%5")
                                   .arg(QLatin1String(drawingVersion), title, kind)
                                   .arg(seed)
                                   .arg(QLatin1String(variant))
                                   .toUtf8();
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
                           + QStringLiteral("/quorix-demo-artwork/");
    return folder + QString::fromLatin1(QCryptographicHash::hash(key, QCryptographicHash::Sha1).toHex())
           + QStringLiteral(".png");
}

QByteArray readCached(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A picture that cannot be kept is drawn again next time; the demo does not depend on the cache.
void keepCached(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size())
        file.commit();
}

void drawKindMotif(QPainter &painter, const QString &kind, QRandomGenerator &random)
{
    painter.setPen(QPen(QColor(255, 255, 255, 150), 6));
    painter.setBrush(Qt::NoBrush);
    if (kind == QLatin1String("onnx")) {
        // A small neural network: three layers of nodes and their connections.
        QList<QList<QPointF>> layers;
        for (int layer = 0; layer < 3; ++layer) {
            QList<QPointF> nodes;
            const int count = 3 + layer % 2;
            for (int i = 0; i < count; ++i)
                nodes.append(QPointF(760 + layer * 110, 150 + i * 260.0 / (count - 1)));
            layers.append(nodes);
        }
        painter.setPen(QPen(QColor(255, 255, 255, 90), 3));
        for (int layer = 0; layer + 1 < layers.size(); ++layer)
            for (const QPointF &from : layers.at(layer))
                for (const QPointF &to : layers.at(layer + 1))
                    painter.drawLine(from, to);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(255, 255, 255, 210));
        for (const auto &nodes : layers)
            for (const QPointF &node : nodes)
                painter.drawEllipse(node, 18, 18);
    } else if (kind == QLatin1String("qenv")) {
        // Stacked package boxes.
        for (int i = 0; i < 3; ++i) {
            const QRectF box(800 - i * 40, 300 - i * 90, 170, 110);
            painter.setBrush(QColor(255, 255, 255, 60 + i * 40));
            painter.drawRoundedRect(box, 14, 14);
            painter.drawLine(box.center().x(), box.top(), box.center().x(), box.bottom());
        }
    } else if (kind == QLatin1String("python")) {
        // Curly braces and a code-like block of lines.
        for (int i = 0; i < 6; ++i) {
            const int length = 120 + int(random.bounded(160));
            painter.drawLine(740, 150 + i * 50, 740 + length, 150 + i * 50);
        }
    } else {
        // A controller outline: body and two thumbsticks.
        QPainterPath body;
        body.addRoundedRect(QRectF(700, 180, 320, 190), 90, 90);
        painter.drawPath(body);
        painter.drawEllipse(QPointF(790, 270), 36, 36);
        painter.drawEllipse(QPointF(930, 270), 36, 36);
    }
}

} // namespace

QImage DemoArtwork::header(const QString &title, const QString &kind, quint32 seed)
{
    QRandomGenerator random(seed);
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);

    const int hue = int(random.bounded(360));
    QLinearGradient gradient(0, 0, width, height);
    gradient.setColorAt(0, QColor::fromHsv(hue, 170, 210));
    gradient.setColorAt(1, QColor::fromHsv((hue + 40 + int(random.bounded(80))) % 360, 200, 90));
    painter.fillRect(image.rect(), gradient);

    painter.setPen(Qt::NoPen);
    for (int i = 0; i < 7; ++i) {
        painter.setBrush(QColor(255, 255, 255, 18 + int(random.bounded(30))));
        const qreal radius = 40 + random.bounded(180);
        painter.drawEllipse(QPointF(random.bounded(width), random.bounded(height)), radius, radius);
    }
    drawKindMotif(painter, kind, random);

    QFont titleFont = painter.font();
    titleFont.setPixelSize(68);
    titleFont.setBold(true);
    painter.setFont(titleFont);
    const QRectF titleBox(60, 300, 640, 200);
    painter.setPen(QColor(0, 0, 0, 90));
    painter.drawText(titleBox.translated(3, 3), Qt::AlignLeft | Qt::AlignBottom | Qt::TextWordWrap, title);
    painter.setPen(Qt::white);
    painter.drawText(titleBox, Qt::AlignLeft | Qt::AlignBottom | Qt::TextWordWrap, title);

    QFont labelFont = titleFont;
    labelFont.setPixelSize(26);
    labelFont.setLetterSpacing(QFont::AbsoluteSpacing, 4);
    painter.setFont(labelFont);
    painter.setPen(QColor(255, 255, 255, 200));
    painter.drawText(QRectF(64, 60, 600, 40), Qt::AlignLeft | Qt::AlignVCenter, kind.toUpper());
    painter.end();
    return image;
}

DemoArtwork::Pictures DemoArtwork::pictures(const QString &title, const QString &kind, quint32 seed)
{
    const QString headerPath = cachedPath(title, kind, seed, "header");
    const QString thumbnailPath = cachedPath(title, kind, seed, "thumbnail");
    Pictures cached{readCached(headerPath), readCached(thumbnailPath)};
    if (!cached.header.isEmpty() && !cached.thumbnail.isEmpty())
        return cached;
    const QImage image = header(title, kind, seed);
    const Pictures drawn{png(image), png(image.scaled(560, 286, Qt::IgnoreAspectRatio, Qt::SmoothTransformation))};
    keepCached(headerPath, drawn.header);
    keepCached(thumbnailPath, drawn.thumbnail);
    return drawn;
}

QByteArray DemoArtwork::png(const QImage &image)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    // Light compression: these pictures live in a temporary catalogue on this machine, and the default level
    // takes several times longer to write.
    image.save(&buffer, "PNG", 80);
    return bytes;
}

} // namespace Quorix
