#include <ThemedIcon.h>
#include <ThemedToolButton.h>

#include <QApplication>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

using namespace Quorix;

namespace {

// The most frequent opaque colour of an icon rendering: the tint, whatever the antialiased edges look like.
QColor dominantColour(const QPixmap &pixmap)
{
    const QImage image = pixmap.toImage().convertToFormat(QImage::Format_ARGB32);
    QHash<QRgb, int> counts;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (qAlpha(image.pixel(x, y)) == 255)
                ++counts[image.pixel(x, y)];
    QRgb best = 0;
    int bestCount = 0;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it)
        if (it.value() > bestCount)
            best = it.key(), bestCount = it.value();
    return QColor::fromRgba(best);
}

} // namespace

class TestThemedIcon : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void iconTakesThePaletteTextColour();
    void iconFollowsAPaletteChange();
    void buttonRetintsOnPaletteChange();
    void missingFileGivesAnEmptyPicture();

private:
    QString svgPath;
    QTemporaryDir dir;
};

void TestThemedIcon::initTestCase()
{
    svgPath = dir.filePath(QStringLiteral("square.svg"));
    QFile file(svgPath);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(R"(<svg xmlns="http://www.w3.org/2000/svg" width="24" height="24" viewBox="0 0 24 24">)"
               R"(<rect x="2" y="2" width="20" height="20" fill="#ff0000"/></svg>)");
}

void TestThemedIcon::iconTakesThePaletteTextColour()
{
    QPalette palette = QApplication::palette();
    palette.setColor(QPalette::Text, QColor(0x12, 0x34, 0x56));
    QApplication::setPalette(palette);
    QCOMPARE(dominantColour(ThemedIcon::create(svgPath).pixmap(24, 24)), QColor(0x12, 0x34, 0x56));
    QCOMPARE(dominantColour(ThemedIcon::create(svgPath, Qt::green).pixmap(24, 24)), QColor(Qt::green));
}

void TestThemedIcon::iconFollowsAPaletteChange()
{
    const QIcon icon = ThemedIcon::create(svgPath);
    QPalette palette = QApplication::palette();
    palette.setColor(QPalette::Text, Qt::white);
    QApplication::setPalette(palette);
    QCOMPARE(dominantColour(icon.pixmap(32, 32)), QColor(Qt::white));
    palette.setColor(QPalette::Text, Qt::black);
    QApplication::setPalette(palette);
    QCOMPARE(dominantColour(icon.pixmap(32, 32)), QColor(Qt::black));
}

void TestThemedIcon::buttonRetintsOnPaletteChange()
{
    ThemedToolButton button(svgPath);
    QPalette palette = button.palette();
    palette.setColor(QPalette::ButtonText, QColor(0xaa, 0x00, 0xaa));
    button.setPalette(palette);
    QCOMPARE(dominantColour(button.icon().pixmap(24, 24)), QColor(0xaa, 0x00, 0xaa));
    QCOMPARE(button.themedIconPath(), svgPath);
}

void TestThemedIcon::missingFileGivesAnEmptyPicture()
{
    const QPixmap pixmap = ThemedIcon::create(dir.filePath(QStringLiteral("missing.svg"))).pixmap(16, 16);
    QCOMPARE(pixmap.size(), QSize(16, 16));
    QCOMPARE(dominantColour(pixmap).alpha(), 0);
}

QTEST_MAIN(TestThemedIcon)
#include "tst_themed_icon.moc"
