#pragma once

#include <QString>
#include <QUrl>

namespace Quorix {

// Reduces author-written HTML to what a description may legitimately use: emphasis, paragraphs, line breaks,
// lists and http(s) links. Everything else (styles, fonts, colours, images, tables, scripts, unknown tags and all
// attributes but a link's address) is dropped, so a description cannot dress itself up as the application's own
// warnings or buttons. Text is kept; markup that is not understood is shown as text rather than guessed at.
class RichTextSanitizer
{
public:
    static QString sanitize(const QString &html);
    // Whether a link may be followed at all: only web addresses, opened outside the application.
    static bool isAllowedLink(const QUrl &url);
};

} // namespace Quorix
