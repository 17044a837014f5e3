#pragma once

#include "ResourceCard.h"

namespace Quorix {

// One environment package in the catalogue grid: like a script card, with its Python version and package count,
// and an install action instead of a download.
class QenvCard : public ResourceCard
{
    Q_OBJECT

public:
    QenvCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString envId() const;

Q_SIGNALS:
    // The card's main action, raised together with downloadClicked.
    void installClicked(const QString &envId);

protected:
    QPushButton *createPillButton(const QString &text, QWidget *parent) override;
    void readKindFields(const QJsonObject &item) override;
    void showTypePill(QLabel *pill) const override;
    void showExtraPill(QLabel *pill) const override;
    QString metaLine(const QString &version, const QString &date, const QString &author) const override;
    QString statsLine(const QString &downloadCount) const override;
    QString actionText() const override;
    QString actionObjectName() const override;
    QString pictureStyle() const override;
    QString likeToolTip() const override;
    QString purchasableToolTip() const override;
    QString privateToolTip() const override;

private:
    QString pythonVersion;
    qint64 packageCount = 0;
};

} // namespace Quorix
