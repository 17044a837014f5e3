#pragma once

#include "ResourceCard.h"

namespace Quorix {

// One script in the catalogue grid: picture, badges, name, meta line, description, like and download.
class ScriptCard : public ResourceCard
{
    Q_OBJECT

public:
    ScriptCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString scriptId() const;

protected:
    QPushButton *createPillButton(const QString &text, QWidget *parent) override;
    void readKindFields(const QJsonObject &item) override;
    void showTypePill(QLabel *pill) const override;
    QString pictureStyle() const override;
    QString likeToolTip() const override;
    QString purchasableToolTip() const override;
    QString privateToolTip() const override;

private:
    QString type;
};

} // namespace Quorix
