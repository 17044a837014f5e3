#pragma once

#include "QuorixSdkExport.h"

#include <QToolButton>

namespace Quorix {

// A tool button whose SVG icon is re-tinted whenever its palette changes (theme switch).
class QUORIX_SDK_EXPORT ThemedToolButton : public QToolButton
{
    Q_OBJECT

public:
    explicit ThemedToolButton(QWidget *parent = nullptr);
    ThemedToolButton(const QString &svgPath, QWidget *parent = nullptr);

    void setThemedIcon(const QString &svgPath);
    QString themedIconPath() const;

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyIcon();

    QString iconPath;
};

} // namespace Quorix
