#pragma once

#include "IPlugin.h"

#include <QtPlugin>

class QWidget;

namespace Quorix {

// A plugin that contributes a page to the host's main window.
class IUIPlugin : public IPlugin
{
public:
    // Creates the page on first call and returns the same page afterwards; the caller embeds (and so owns) it.
    virtual QWidget *page() = 0;
    virtual bool showsInNavigation() const = 0;
    virtual void activated() = 0;
    virtual void deactivated() = 0;
};

} // namespace Quorix

#define QuorixIUIPlugin_iid "com.quorix.IUIPlugin"
Q_DECLARE_INTERFACE(Quorix::IUIPlugin, QuorixIUIPlugin_iid)
