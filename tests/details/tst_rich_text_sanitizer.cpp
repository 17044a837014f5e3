#include "details/RichTextSanitizer.h"

#include <QTest>
#include <QTextDocument>

using namespace Quorix;

// What an author's description may keep, and what it must lose before the details view renders it.
class RichTextSanitizerTest : public QObject
{
    Q_OBJECT

private slots:
    void keepsHarmlessMarkupAndDropsTheRest_data();
    void keepsHarmlessMarkupAndDropsTheRest();
    void renderedResultLoadsNothing();
    void onlyWebLinksAreFollowed_data();
    void onlyWebLinksAreFollowed();
};

void RichTextSanitizerTest::keepsHarmlessMarkupAndDropsTheRest_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");

    QTest::newRow("plain text") << "Smooth recoil control"
                                << "Smooth recoil control";
    QTest::newRow("emphasis") << "<b>bold</b> <i>it</i> <em>em</em> <strong>s</strong> <u>u</u>"
                              << "<b>bold</b> <i>it</i> <em>em</em> <strong>s</strong> <u>u</u>";
    QTest::newRow("upper-case tags") << "<B>x</B><BR>"
                                     << "<b>x</b><br>";
    QTest::newRow("paragraphs and breaks") << "<p>one</p><p>two<br/>three</p>"
                                           << "<p>one</p><p>two<br>three</p>";
    QTest::newRow("lists") << "<ul><li>a</li><li>b</li></ul><ol><li>c</li></ol>"
                           << "<ul><li>a</li><li>b</li></ul><ol><li>c</li></ol>";
    QTest::newRow("attributes stripped") << "<p style=\"color:red\" class=\"warn\" onclick=\"x()\">hi</p>"
                                         << "<p>hi</p>";
    QTest::newRow("fake warning in big red text")
            << "<font size=\"7\" color=\"red\"><span style=\"font-size:40pt\">SYSTEM WARNING</span></font>"
            << "SYSTEM WARNING";
    QTest::newRow("headings lose their size") << "<h1>Title</h1>text"
                                              << "<p>Title</p>text";
    QTest::newRow("image dropped") << "before<img src=\"http://evil.example/x.png\">after"
                                   << "beforeafter";
    QTest::newRow("table flattened") << "<table><tr><td>cell</td></tr></table>"
                                     << "cell";
    QTest::newRow("fake button") << "<a href=\"https://x.example\" style=\"background:#5865F2\"><button>Install"
                                    "</button></a>"
                                 << "<a href=\"https://x.example\">Install</a>";
    QTest::newRow("script with content") << "a<script>alert('x')</script>b"
                                         << "ab";
    QTest::newRow("unterminated script eats the rest") << "a<script>alert(1)"
                                                       << "a";
    QTest::newRow("comment") << "a<!-- <b>hidden</b> -->b"
                             << "ab";
    QTest::newRow("nested and misnested") << "<b><i>x</b>y</i>"
                                          << "<b><i>x</i></b>y";
    QTest::newRow("unclosed tags are closed") << "<ul><li><b>open"
                                              << "<ul><li><b>open</b></li></ul>";
    QTest::newRow("stray closing tag") << "x</b></p>y"
                                       << "xy";
    QTest::newRow("unterminated tag is text") << "a <b class=\"x"
                                              << "a &lt;b class=&quot;x";
    QTest::newRow("less-than in text") << "1 < 2 > 0"
                                       << "1 &lt; 2 &gt; 0";
    QTest::newRow("entities kept") << "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;"
                                   << "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;";
    QTest::newRow("bare ampersand escaped") << "R&D & more"
                                            << "R&amp;D &amp; more";
    QTest::newRow("quoted greater-than inside a tag") << "<a href=\"https://x.example/?a=1>2\">l</a>"
                                                      << "<a href=\"https://x.example/?a=1%3E2\">l</a>";
    QTest::newRow("web link") << "<a href='http://x.example/p?q=1&amp;r=2' target=\"_blank\">go</a>"
                              << "<a href=\"http://x.example/p?q=1&amp;r=2\">go</a>";
    QTest::newRow("javascript link") << "<a href=\"javascript:alert(1)\">x</a>"
                                     << "x";
    QTest::newRow("javascript link hidden by entities") << "<a href=\"jav&#x61;script:alert(1)\">x</a>"
                                                        << "x";
    QTest::newRow("javascript link behind blanks") << "<a href=\"  JavaScript:alert(1)\">x</a>"
                                                   << "x";
    QTest::newRow("data link") << "<a href=\"data:text/html,<b>x</b>\">x</a>"
                               << "x";
    QTest::newRow("link without address") << "<a name=\"top\">x</a>"
                                          << "x";
    QTest::newRow("nested link ends the outer one")
            << "<a href=\"https://a.example\">1<a href=\"https://b.example\">2</a>3</a>"
            << "<a href=\"https://a.example\">12</a>3";
}

void RichTextSanitizerTest::keepsHarmlessMarkupAndDropsTheRest()
{
    QFETCH(QString, input);
    QFETCH(QString, expected);
    QCOMPARE(RichTextSanitizer::sanitize(input), expected);
}

// Whatever the input, the rendered document holds no image and no font sizes or colours of the author's choosing.
void RichTextSanitizerTest::renderedResultLoadsNothing()
{
    const QString hostile = QStringLiteral(
            "<div style=\"position:fixed\"><img src=\"https://t.example/p.gif\"><span style=\"font-size:60pt;"
            "color:#f00\">ALERT</span><table border=9><tr><td><input type=button value=OK></td></tr></table></div>");
    QTextDocument document;
    document.setHtml(RichTextSanitizer::sanitize(hostile));
    QCOMPARE(document.toPlainText().trimmed(), QStringLiteral("ALERT"));
    const QString html = document.toHtml();
    QVERIFY(!html.contains(QLatin1String("<img")));
    QVERIFY(!html.contains(QLatin1String("60pt")));
    QVERIFY(!html.contains(QLatin1String("#ff0000")));
    QVERIFY(!html.contains(QLatin1String("<table")));
}

void RichTextSanitizerTest::onlyWebLinksAreFollowed_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("allowed");
    QTest::newRow("https") << "https://example.com/x" << true;
    QTest::newRow("http upper-case scheme") << "HTTP://example.com" << true;
    QTest::newRow("javascript") << "javascript:alert(1)" << false;
    QTest::newRow("file") << "file:///C:/Windows" << false;
    QTest::newRow("mailto") << "mailto:a@example.com" << false;
    QTest::newRow("relative") << "/details/1" << false;
    QTest::newRow("https without host") << "https:///x" << false;
}

void RichTextSanitizerTest::onlyWebLinksAreFollowed()
{
    QFETCH(QString, address);
    QFETCH(bool, allowed);
    QCOMPARE(RichTextSanitizer::isAllowedLink(QUrl(address)), allowed);
}

QTEST_GUILESS_MAIN(RichTextSanitizerTest)
#include "tst_rich_text_sanitizer.moc"
