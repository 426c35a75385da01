// The application interface: its error body and the addresses of the daemon callbacks.

#include <Wendrel/HttpServer.h>

#include "server/Dispatch.h"
#include "server/logging/DaemonLog.h"
#include "streaming/StreamCallbacks.h"

#include <utility>

namespace qv::http
{

HttpServerImpl::HttpServerImpl() = default;

HttpServerImpl::~HttpServerImpl() = default;

HttpServerImpl::Callback HttpServerImpl::GetHttpCallback()
{
    return reinterpret_cast<Callback>(&impl::HandleAccess);
}

HttpServerImpl::Callback HttpServerImpl::GetRequestCompletedCallback()
{
    return reinterpret_cast<Callback>(&impl::RequestCompleted);
}

HttpServerImpl::Callback HttpServerImpl::GetUriLogCallback()
{
    return reinterpret_cast<Callback>(&impl::OpenContext);
}

HttpServerImpl::Callback HttpServerImpl::GetLogFunction()
{
    return reinterpret_cast<Callback>(&impl::LogDaemonMessage);
}

void HttpServerImpl::onRequestRefused(const RefusedRequest&) {}

void HttpServerImpl::setErrorBody(std::string body)
{
    mErrorBody = std::move(body);
}

}  // namespace qv::http
