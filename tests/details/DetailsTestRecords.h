#pragma once

#include "details/OnnxDetailsDialog.h"
#include "details/QenvDetailsDialog.h"
#include "details/ScriptDetailsDialog.h"

#include <QJsonArray>
#include <QJsonObject>

namespace Quorix::Testing::DetailsTestRecords {

enum Kind { Script, Environment, Weights };

inline const QString authorId = QStringLiteral("231456789012345678");
inline const QString administratorId = QStringLiteral("100000000000000009");

// One complete record per kind; keys in `changes` replace the defaults and a null value removes the key.
inline QJsonObject record(int kind, const QJsonObject &changes = {})
{
    QJsonObject record{{"id", "res-1"},
                       {"name", "Anti-Recoil Pro"},
                       {"description", "Smooth recoil compensation."},
                       {"created", "2024-03-05T10:00:00Z"},
                       {"version", 1},
                       {"downloads", 12},
                       {"views", 40},
                       {"likes", 3},
                       {"visibility_type", "public"},
                       {"author", QJsonObject{{"username", "frame_perfect"}, {"discord_id", authorId}}},
                       {"type", kind == Script ? "gpc3" : kind == Environment ? "qenv" : "onnx"}};
    if (kind == Script)
        record.insert("tags", QJsonArray{"fps", "aim"});
    if (kind == Weights)
        record.insert("size", 98304);
    for (auto it = changes.begin(); it != changes.end(); ++it) {
        if (it.value().isNull())
            record.remove(it.key());
        else
            record.insert(it.key(), it.value());
    }
    return record;
}

inline ResourceDetailsDialog *createDialog(int kind, QWidget *parent = nullptr)
{
    if (kind == Script)
        return new ScriptDetailsDialog(parent);
    if (kind == Environment)
        return new QenvDetailsDialog(parent);
    return new OnnxDetailsDialog(parent);
}

} // namespace Quorix::Testing::DetailsTestRecords
