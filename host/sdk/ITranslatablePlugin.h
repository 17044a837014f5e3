#pragma once

#include <QtPlugin>

namespace Quorix {

// A plugin whose visible texts can be re-applied after the host switches language.
class ITranslatablePlugin
{
public:
    virtual ~ITranslatablePlugin() = default;
    virtual void retranslateUi() = 0;
};

} // namespace Quorix

#define QuorixITranslatablePlugin_iid "com.quorix.ITranslatablePlugin"
Q_DECLARE_INTERFACE(Quorix::ITranslatablePlugin, QuorixITranslatablePlugin_iid)
