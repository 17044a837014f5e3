#pragma once

#include <PluginHost.h>

#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace Quorix {

class CatalogueServer;

// quorix-shell --demo: the reference catalogue server, seeded, in this process on a free local port, with a demo
// user signed in through dev login. Lives as long as the shell.
class DemoSession
{
public:
    DemoSession();
    ~DemoSession();

    // Starts the server, signs the demo user in and points QUORIX_SERVER_URL at the server; call before plugins
    // load, since they read their configuration once.
    bool start(QString *error);
    UserIdentity identity() const { return user; }

private:
    QTemporaryDir dataDirectory;
    std::unique_ptr<CatalogueServer> server;
    UserIdentity user;
};

} // namespace Quorix
