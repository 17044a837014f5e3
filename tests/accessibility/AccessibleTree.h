#pragma once

#include <QString>
#include <QStringList>

class QAccessibleInterface;
class QObject;

namespace Quorix::Testing {

// What assistive tools read of a window, taken through QAccessible as a screen reader's bridge takes it.
class AccessibleTree
{
public:
    // Every shown element under root that can take focus or offers an action yet has no name, each described by
    // its role, object name and class so that a failure points at the widget.
    static QStringList unnamedControls(QObject *root);
    // The first shown element under root with this role and name, or null.
    static QAccessibleInterface *find(QObject *root, int role, const QString &name);
    static QString describe(QAccessibleInterface *element);
    // What a screen reader announces as the element's name: the caption of the label that labels it, when one
    // does (on Linux a combo box's own name is its current item), else its name.
    static QString spokenName(QAccessibleInterface *element);
};

} // namespace Quorix::Testing
