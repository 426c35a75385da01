// The line that each request leaves in the log.

#include "AccessLine.h"

#include "Log.h"

#include <Wendrel/HttpRequest.h>
#include <qvSystem/IpAddress.h>
#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>

namespace filedrop
{

AccessLine::AccessLine(const qv::kit::Request& request)
    : mRequest(request.clientAddress().toString() + " " +
               qv::HttpBaseRequest::RequestTypeToString(
                   static_cast<qv::HttpBaseRequest::RequestType>(request.method())) +
               " " + request.target()),
      mStartedMs(qv::qvSystemUtils::GetTimeBaseMs())
{}

void AccessLine::write(int status, bool isSent, uint64_t bytes) const
{
    writeLog(qv::qvLog::Information,
             mRequest + " " + (isSent ? std::to_string(status) : "lost") + " " +
                 std::to_string(bytes) + " bytes " +
                 std::to_string(qv::qvSystemUtils::GetTimeBaseMs() - mStartedMs) + " ms");
}

}  // namespace filedrop
