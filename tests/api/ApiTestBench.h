#pragma once

#include "RecordingHttpServer.h"
#include "TemporaryHome.h"
#include "api/OnlineResourcesAPI.h"

#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <memory>

namespace Quorix::Testing {

using ApiOperation = std::function<void(OnlineResourcesAPI &)>;

// A client talking to a recording server of its own from a temporary home. The client reads the server origin once
// per process, so start() runs before the first client exists; renew() gives every case a fresh client and server.
struct ApiTestBench
{
    TemporaryHome home;
    RecordingHttpServer server;
    std::unique_ptr<OnlineResourcesAPI> api;

    bool start()
    {
        if (!server.listen())
            return false;
        qputenv("QUORIX_SERVER_URL", server.origin().toUtf8());
        return true;
    }

    void renew(const ScriptedResponse &response, const QString &token = QString())
    {
        api.reset();
        server.reset();
        server.setDefaultResponse(response);
        api = std::make_unique<OnlineResourcesAPI>();
        api->authToken = token;
    }

    RecordedRequest record(const ApiOperation &operation)
    {
        operation(*api);
        return server.waitForRequests(1) ? server.lastRequest() : RecordedRequest();
    }
};

} // namespace Quorix::Testing

Q_DECLARE_METATYPE(Quorix::Testing::ApiOperation)
Q_DECLARE_METATYPE(Quorix::Testing::ScriptedResponse)
