#pragma once

#include "ResourceCard.h"

namespace Quorix {

// One weights file in the catalogue grid: like a script card, marked ONNX or ENNX (encrypted), with its size on
// the download action.
class OnnxCard : public ResourceCard
{
    Q_OBJECT

public:
    OnnxCard(const QJsonObject &item, QWidget *parent = nullptr);

    QString weightsId() const;

protected:
    QPushButton *createPillButton(const QString &text, QWidget *parent) override;
    void readKindFields(const QJsonObject &item) override;
    void showTypePill(QLabel *pill) const override;
    QString actionText() const override;
    QString pictureStyle() const override;
    QString likeToolTip() const override;
    QString purchasableToolTip() const override;
    QString privateToolTip() const override;

private:
    bool encrypted = false;
    qint64 size = 0;
};

} // namespace Quorix
