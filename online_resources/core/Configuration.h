#pragma once

#include <QString>
#include <QStringList>

namespace Quorix {

// Deployment settings, read once per process: the environment overrides what the build was configured with.
class Configuration
{
public:
    // Scheme, host and port of the catalogue server, without a trailing slash (QUORIX_SERVER_URL).
    static QString serverOrigin();
    // Discord IDs allowed to moderate (QUORIX_ADMIN_IDS, comma-separated).
    static QStringList administratorIds();
    // Address of the uv release archive for this platform (QUORIX_UV_DOWNLOAD_URL); empty means the default asset.
    static QString uvDownloadUrlOverride();
};

} // namespace Quorix
