#include "RichTextSanitizer.h"

#include <QList>
#include <QRegularExpression>
#include <QSet>

namespace Quorix {

namespace {

struct Tag
{
    QString name;
    QString href;
    bool closing = false;
};

const QSet<QString> &inlineAndListTags()
{
    static const QSet<QString> tags{QStringLiteral("b"),      QStringLiteral("i"),  QStringLiteral("em"),
                                    QStringLiteral("strong"), QStringLiteral("u"),  QStringLiteral("p"),
                                    QStringLiteral("ul"),     QStringLiteral("ol"), QStringLiteral("li"),
                                    QStringLiteral("a")};
    return tags;
}

// Blocks that authors use for layout; they keep their line break but lose their look.
bool becomesParagraph(const QString &name)
{
    static const QRegularExpression headingOrDiv(QStringLiteral("^(h[1-6]|div)$"));
    return headingOrDiv.match(name).hasMatch();
}

// Elements whose content is code or styling, never text meant for the reader.
bool dropsContent(const QString &name)
{
    return name == QLatin1String("script") || name == QLatin1String("style") || name == QLatin1String("title")
           || name == QLatin1String("textarea");
}

QString escapedText(QStringView text)
{
    static const QRegularExpression entity(
            QStringLiteral("^&(#[0-9]{1,7}|#[xX][0-9a-fA-F]{1,6}|[a-zA-Z][a-zA-Z0-9]{1,31});"));
    QString out;
    out.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('&')) {
            const QRegularExpressionMatch match = entity.match(text.mid(i));
            if (match.hasMatch()) {
                out += match.captured(0);
                i += match.capturedLength(0) - 1;
            } else {
                out += QLatin1String("&amp;");
            }
        } else if (c == QLatin1Char('<')) {
            out += QLatin1String("&lt;");
        } else if (c == QLatin1Char('>')) {
            out += QLatin1String("&gt;");
        } else if (c == QLatin1Char('"')) {
            out += QLatin1String("&quot;");
        } else {
            out += c;
        }
    }
    return out;
}

// The end of a tag that starts at `start` ('<'), honouring quoted attribute values; -1 when it never ends.
qsizetype tagEnd(const QString &html, qsizetype start)
{
    QChar quote;
    for (qsizetype i = start + 1; i < html.size(); ++i) {
        const QChar c = html.at(i);
        if (!quote.isNull()) {
            if (c == quote)
                quote = QChar();
        } else if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
            quote = c;
        } else if (c == QLatin1Char('>')) {
            return i;
        }
    }
    return -1;
}

QString attributeValue(const QString &attributes, const QString &name)
{
    static const QRegularExpression attribute(
            QStringLiteral("([^\\s=/]+)(?:\\s*=\\s*(?:\"([^\"]*)\"|'([^']*)'|([^\\s\"'>]+)))?"));
    QRegularExpressionMatchIterator it = attribute.globalMatch(attributes);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        if (match.captured(1).compare(name, Qt::CaseInsensitive) != 0)
            continue;
        for (int group = 2; group <= 4; ++group) {
            if (match.capturedStart(group) >= 0)
                return match.captured(group);
        }
        return QString();
    }
    return QString();
}

// Decodes the few entities that can hide a scheme ("jav&#x61;script:") before the address is judged.
QString decodedAddress(QString address)
{
    static const QRegularExpression numeric(QStringLiteral("&#([xX]?)([0-9a-fA-F]+);?"));
    QRegularExpressionMatch match;
    qsizetype from = 0;
    while ((match = numeric.match(address, from)).hasMatch()) {
        bool ok = false;
        const uint code = match.captured(2).toUInt(&ok, match.captured(1).isEmpty() ? 10 : 16);
        const char32_t character = code;
        const QString replacement = ok && code > 0 && code < 0x110000 ? QString::fromUcs4(&character, 1) : QString();
        address.replace(match.capturedStart(0), match.capturedLength(0), replacement);
        from = match.capturedStart(0) + replacement.size();
    }
    address.replace(QLatin1String("&amp;"), QLatin1String("&"));
    return address;
}

bool parseTag(const QString &inner, Tag &tag)
{
    static const QRegularExpression shape(QStringLiteral("^(/?)\\s*([a-zA-Z][a-zA-Z0-9]*)(.*)$"),
                                          QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = shape.match(inner);
    if (!match.hasMatch())
        return false;
    tag.closing = !match.captured(1).isEmpty();
    tag.name = match.captured(2).toLower();
    if (tag.name == QLatin1String("a") && !tag.closing) {
        const QUrl url(decodedAddress(attributeValue(match.captured(3), QStringLiteral("href"))).trimmed());
        if (RichTextSanitizer::isAllowedLink(url))
            tag.href = url.toString(QUrl::FullyEncoded);
    }
    return true;
}

class Writer
{
public:
    void text(QStringView text) { out += escapedText(text); }

    void tag(const Tag &tag)
    {
        QString name = tag.name;
        if (becomesParagraph(name))
            name = QStringLiteral("p");
        if (name == QLatin1String("br")) {
            if (!tag.closing)
                out += QLatin1String("<br>");
            return;
        }
        if (!inlineAndListTags().contains(name))
            return;
        if (tag.closing)
            close(name);
        else
            open(name, tag.href);
    }

    QString finish()
    {
        while (!openTags.isEmpty())
            out += QStringLiteral("</%1>").arg(openTags.takeLast());
        return out;
    }

private:
    void open(const QString &name, const QString &href)
    {
        if (name == QLatin1String("a")) {
            // A link without an acceptable address keeps its text but is no link; its end tag then finds nothing.
            if (href.isEmpty() || openTags.contains(name))
                return;
            out += QStringLiteral("<a href=\"%1\">").arg(escapedText(href));
        } else {
            out += QStringLiteral("<%1>").arg(name);
        }
        openTags.append(name);
    }

    // Closes everything opened inside the element as well, so the output is always properly nested.
    void close(const QString &name)
    {
        const qsizetype index = openTags.lastIndexOf(name);
        if (index < 0)
            return;
        while (openTags.size() > index)
            out += QStringLiteral("</%1>").arg(openTags.takeLast());
    }

    QString out;
    QStringList openTags;
};

} // namespace

QString RichTextSanitizer::sanitize(const QString &html)
{
    Writer writer;
    qsizetype position = 0;
    while (position < html.size()) {
        const qsizetype open = html.indexOf(QLatin1Char('<'), position);
        if (open < 0) {
            writer.text(QStringView(html).mid(position));
            break;
        }
        writer.text(QStringView(html).mid(position, open - position));
        if (html.mid(open, 4) == QLatin1String("<!--")) {
            const qsizetype commentEnd = html.indexOf(QLatin1String("-->"), open + 4);
            position = commentEnd < 0 ? html.size() : commentEnd + 3;
            continue;
        }
        const qsizetype end = tagEnd(html, open);
        Tag tag;
        if (end < 0 || !parseTag(html.mid(open + 1, end - open - 1), tag)) {
            writer.text(QStringView(html).mid(open, 1));
            position = open + 1;
            continue;
        }
        position = end + 1;
        if (dropsContent(tag.name) && !tag.closing) {
            const QRegularExpression closing(QStringLiteral("</\\s*%1\\s*>").arg(tag.name),
                                             QRegularExpression::CaseInsensitiveOption);
            const QRegularExpressionMatch match = closing.match(html, position);
            position = match.hasMatch() ? match.capturedEnd(0) : html.size();
            continue;
        }
        writer.tag(tag);
    }
    return writer.finish();
}

bool RichTextSanitizer::isAllowedLink(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    return url.isValid() && !url.host().isEmpty()
           && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

} // namespace Quorix
