#include "ApiRequest.h"

namespace Quorix {

QString ApiRequest::queryValue(const QString &key) const
{
    return query.queryItemValue(key, QUrl::FullyDecoded);
}

} // namespace Quorix
