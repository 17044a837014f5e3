#include "details/RichTextSanitizer.h"

#include <QRegularExpression>
#include <QTest>
#include <QTextDocument>

using namespace Quorix;

// What an author's description may keep, and what it must lose before the details view renders it.
class RichTextSanitizerTest : public QObject
{
    Q_OBJECT

private slots:
    void keepsHarmlessMarkupAndDropsTheRest_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        const struct
        {
            const char *tag, *input, *expected;
        } rows[] = {
                {"emphasis", "<b>b</b> <i>i</i> <em>e</em> <strong>s</strong> <u>u</u>",
                 "<b>b</b> <i>i</i> <em>e</em> <strong>s</strong> <u>u</u>"},
                {"upper-case tags", "<B>x</B><BR>", "<b>x</b><br>"},
                {"paragraphs and lists", "<p>a<br/>b</p><ul><li>c</li></ul><ol><li>d</li></ol>",
                 "<p>a<br>b</p><ul><li>c</li></ul><ol><li>d</li></ol>"},
                {"attributes stripped", "<p style=\"color:red\" class=\"w\" onclick=\"x()\">hi</p>", "<p>hi</p>"},
                {"fake warning", "<font size=\"7\" color=\"red\"><span style=\"font-size:40pt\">WARNING</span></font>",
                 "WARNING"},
                {"headings lose their size", "<h1>Title</h1>text", "<p>Title</p>text"},
                {"image dropped", "before<img src=\"http://evil.example/x.png\">after", "beforeafter"},
                {"table flattened", "<table><tr><td>cell</td></tr></table>", "cell"},
                {"fake button", "<a href=\"https://x.example\" style=\"x\"><button>Install</button></a>",
                 "<a href=\"https://x.example\">Install</a>"},
                {"script", "a<script>alert('x')</script>b", "ab"},
                {"unterminated script", "a<script>alert(1)", "a"},
                {"comment", "a<!-- <b>hidden</b> -->b", "ab"},
                {"misnested", "<b><i>x</b>y</i>", "<b><i>x</i></b>y"},
                {"unclosed tags are closed", "<ul><li><b>open", "<ul><li><b>open</b></li></ul>"},
                {"stray closing tag", "x</b></p>y", "xy"},
                {"unterminated tag is text", "a <b class=\"x", "a &lt;b class=&quot;x"},
                {"less-than in text", "1 < 2 > 0", "1 &lt; 2 &gt; 0"},
                {"entities kept", "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;", "&amp; &lt;b&gt; &#169; &#x263A; &nbsp;"},
                {"bare ampersand", "R&D & more", "R&amp;D &amp; more"},
                {"quoted greater-than", "<a href=\"https://x.example/?a=1>2\">l</a>",
                 "<a href=\"https://x.example/?a=1%3E2\">l</a>"},
                {"web link", "<a href='http://x.example/p?q=1&amp;r=2' target=\"_blank\">go</a>",
                 "<a href=\"http://x.example/p?q=1&amp;r=2\">go</a>"},
                {"upper-case scheme", "<a href=\"HTTPS://x.example/\">go</a>", "<a href=\"https://x.example/\">go</a>"},
                {"javascript link", "<a href=\"javascript:alert(1)\">x</a>", "x"},
                {"javascript behind entities", "<a href=\"jav&#x61;script:alert(1)\">x</a>", "x"},
                {"javascript behind blanks", "<a href=\"  JavaScript:alert(1)\">x</a>", "x"},
                {"data link", "<a href=\"data:text/html,<b>x</b>\">x</a>", "x"},
                {"file link", "<a href=\"file:///C:/Windows\">x</a>", "x"},
                {"file link with a host", "<a href=\"file://server/share\">x</a>", "x"},
                {"mail link", "<a href=\"mailto:a@example.com\">x</a>", "x"},
                {"relative link", "<a href=\"/details/1\">x</a>", "x"},
                {"web link without host", "<a href=\"https:///x\">x</a>", "x"},
                {"link without address", "<a name=\"top\">x</a>", "x"},
                {"nested link ends the outer one",
                 "<a href=\"https://a.example\">1<a href=\"https://b.example\">2</a>3</a>",
                 "<a href=\"https://a.example\">12</a>3"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.tag) << QString(row.input) << QString(row.expected);
    }

    void keepsHarmlessMarkupAndDropsTheRest()
    {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(RichTextSanitizer::sanitize(input), expected);
        // Links the view may follow are exactly those the sanitized text keeps.
        const QString href = input.section("href=", 1).section(QRegularExpression("[\"']"), 1, 1);
        if (input.contains("href=") && !input.contains("&"))
            QCOMPARE(RichTextSanitizer::isAllowedLink(QUrl(href.trimmed())), expected.contains("href"));
    }

    // Whatever the input, the rendered document holds no image and no font sizes or colours of the author's choosing.
    void renderedResultLoadsNothing()
    {
        QTextDocument document;
        document.setHtml(RichTextSanitizer::sanitize(
                "<div style=\"position:fixed\"><img src=\"https://t.example/p.gif\"><span style=\"font-size:60pt;"
                "color:#f00\">ALERT</span><table border=9><tr><td><input type=button "
                "value=OK></td></tr></table></div>"));
        QCOMPARE(document.toPlainText().trimmed(), "ALERT");
        for (const char *unwanted : {"<img", "60pt", "#ff0000", "<table"})
            QVERIFY2(!document.toHtml().contains(unwanted), unwanted);
    }
};

QTEST_GUILESS_MAIN(RichTextSanitizerTest)
#include "tst_rich_text_sanitizer.moc"
