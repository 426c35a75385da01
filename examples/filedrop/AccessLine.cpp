// The line that each request leaves in the log.

#include "AccessLine.h"

#include "Log.h"

#include <qvSystem/qvLog.h>

#include <chrono>
#include <string>

namespace filedrop
{

void writeAccessLine(const qv::kit::CompletedRequest& request)
{
    const std::string outcome =
        request.abortReason.empty() ? std::to_string(request.status) : request.abortReason;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(request.duration);
    writeLog(qv::qvLog::Information, request.clientAddress.toString() + " " + request.method + " " +
                                         request.target + " " + outcome + " " +
                                         std::to_string(request.sentBytes) + " bytes " +
                                         std::to_string(ms.count()) + " ms");
}

}  // namespace filedrop
