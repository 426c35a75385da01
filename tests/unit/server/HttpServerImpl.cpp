// The application interface: its callbacks, its error body and its shape.

#include "server/Dispatch.h"
#include "server/logging/DaemonLog.h"
#include "streaming/StreamCallbacks.h"
#include "support/RecordingApplication.h"
#include "support/RecordingDaemon.h"
#include "support/VirtualSlot.h"

#include <Wendrel/HttpServer.h>

#include <gmock/gmock.h>

#include <type_traits>

namespace qv::tests
{

namespace
{

using Impl = http::HttpServerImpl;

template <typename Function> Impl::Callback Untyped(Function* function)
{
    return reinterpret_cast<Impl::Callback>(function);
}

TEST(HttpServerImpl, GivesTheDaemonsCallbacks)
{
    EXPECT_EQ(Impl::GetHttpCallback(), Untyped(&impl::HandleAccess));
    EXPECT_EQ(Impl::GetRequestCompletedCallback(), Untyped(&impl::RequestCompleted));
    EXPECT_EQ(Impl::GetUriLogCallback(), Untyped(&impl::OpenContext));
    EXPECT_EQ(Impl::GetLogFunction(), Untyped(&impl::LogDaemonMessage));
}

TEST(HttpServerImpl, HasItsCallbacksInTheDaemonsTypes)
{
    EXPECT_TRUE((std::is_convertible_v<decltype(&impl::HandleAccess), MHD_AccessHandlerCallback>));
    EXPECT_TRUE(
        (std::is_convertible_v<decltype(&impl::RequestCompleted), MHD_RequestCompletedCallback>));
    EXPECT_TRUE((std::is_convertible_v<decltype(&impl::LogDaemonMessage), MHD_LogCallback>));
    EXPECT_TRUE((std::is_convertible_v<decltype(&impl::TakeValue), MHD_KeyValueIterator>));
    EXPECT_TRUE((std::is_convertible_v<decltype(&impl::OpenContext),
                                       void* (*)(void*, const char*, MHD_Connection*)>));
}

TEST(HttpServerImpl, HasAnEmptyErrorBodyAtFirst)
{
    RecordingDaemon daemon;
    RecordingApplication application(daemon);
    EXPECT_EQ(application.getErrorBody(), "");
    const std::string body("sorry\0, broken", 14);
    application.setErrorBody(body);
    EXPECT_EQ(application.getErrorBody(), body);
}

TEST(HttpServerImpl, IsDeletedThroughItsBase)
{
    RecordingDaemon daemon;
    const Impl* application = new RecordingApplication(daemon);
    delete application;
    EXPECT_THAT(daemon.calls(), ::testing::ElementsAre("~HttpServerImpl"));
}

TEST(HttpServerImpl, HasItsVirtualOperationsInTheirSlots)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<Impl>);
    EXPECT_TRUE(std::is_abstract_v<Impl>);
    EXPECT_EQ(VirtualSlot(&Impl::createRequest), 2);
    EXPECT_EQ(VirtualSlot(&Impl::handleRequest), 3);
    EXPECT_EQ(VirtualSlot(&Impl::onNewWebSocket), 4);
    EXPECT_EQ(VirtualSlot(&Impl::onServerStopped), 5);
    EXPECT_EQ(VirtualSlot(&Impl::onRequestCompleted), 6);
}

}  // namespace

}  // namespace qv::tests
