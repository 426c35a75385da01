// Where everything in the exported classes lies: members by their offset in bytes, virtual
// operations by their place in the table. Applications have these numbers compiled in.
// See docs/compatibility.md before you change one.

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/MemoryAccount.h>
#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/WebSocket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

struct Place
{
    std::string name;
    ptrdiff_t wanted;
    ptrdiff_t found;
};

std::vector<Place>& places()
{
    static std::vector<Place> all;
    return all;
}

template <size_t Size> struct Text
{
    constexpr Text(const char (&text)[Size]) { std::copy_n(text, Size, characters); }
    char characters[Size];
};

// A pointer to a member is its offset. A pointer to a virtual operation is one more than the
// offset of its entry in the table, and the adjustment of `this`.
template <typename Pointer> ptrdiff_t placeOf(Pointer pointer)
{
    ptrdiff_t words[sizeof(pointer) / sizeof(ptrdiff_t)];
    std::memcpy(words, &pointer, sizeof(pointer));
    if constexpr (std::is_member_function_pointer_v<Pointer>) {
        const bool isVirtual = words[0] % 2 == 1 && words[1] == 0;
        return isVirtual ? (words[0] - 1) / static_cast<ptrdiff_t>(sizeof(void*)) : -1;
    } else {
        return words[0];
    }
}

// Explicitly instantiated for each member: there, and only there, private ones can be named.
template <Text Name, auto Pointer, ptrdiff_t Wanted> struct Noted
{
    static const bool done;
};

template <Text Name, auto Pointer, ptrdiff_t Wanted>
const bool Noted<Name, Pointer, Wanted>::done =
    (places().push_back({Name.characters, Wanted, placeOf(Pointer)}), true);

#define WENDREL_PLACE(type, member, wanted)                                                        \
    template struct Noted<#type "::" #member, &type::member, wanted>

WENDREL_PLACE(qv::http::HttpServer, mImpl, 112);
WENDREL_PLACE(qv::http::HttpServer, mMutex, 120);
WENDREL_PLACE(qv::http::HttpServer, mWake, 160);
WENDREL_PLACE(qv::http::HttpServer, mParameters, 208);
WENDREL_PLACE(qv::http::HttpServer, mState, 232);
WENDREL_PLACE(qv::http::HttpServer, mStopRequested, 236);
WENDREL_PLACE(qv::http::HttpServer, mEventServer, 240);
WENDREL_PLACE(qv::http::HttpServer, mEndpoints, 248);
WENDREL_PLACE(qv::http::HttpServer, mFailureReason, 272);
WENDREL_PLACE(qv::http::HttpServer, mHasDrained, 304);
WENDREL_PLACE(qv::http::HttpServer, mUrls, 312);
WENDREL_PLACE(qv::http::HttpServer, run, 2);

WENDREL_PLACE(qv::http::HttpServerImpl, mErrorBody, 8);
WENDREL_PLACE(qv::http::HttpServerImpl, createRequest, 2);
WENDREL_PLACE(qv::http::HttpServerImpl, handleRequest, 3);
WENDREL_PLACE(qv::http::HttpServerImpl, onNewWebSocket, 4);
WENDREL_PLACE(qv::http::HttpServerImpl, onServerStopped, 5);
WENDREL_PLACE(qv::http::HttpServerImpl, onRequestCompleted, 6);
WENDREL_PLACE(qv::http::HttpServerImpl, onRequestRefused, 7);

WENDREL_PLACE(qv::HttpBaseRequest, mConnection, 8);
WENDREL_PLACE(qv::HttpBaseRequest, mAuxIndex, 16);
WENDREL_PLACE(qv::HttpBaseRequest, mClientAddress, 24);
WENDREL_PLACE(qv::HttpBaseRequest, mReceiveDevice, 48);
WENDREL_PLACE(qv::HttpBaseRequest, mResponseDevice, 56);
WENDREL_PLACE(qv::HttpBaseRequest, mReceiveDurationMs, 64);
WENDREL_PLACE(qv::HttpBaseRequest, mResponseStartMs, 72);
WENDREL_PLACE(qv::HttpBaseRequest, mRequestHeadBytes, 80);
WENDREL_PLACE(qv::HttpBaseRequest, mResponseHeadBytes, 88);
WENDREL_PLACE(qv::HttpBaseRequest, mWorkerThreadId, 96);
WENDREL_PLACE(qv::HttpBaseRequest, mLastKeepAliveMs, 128);
WENDREL_PLACE(qv::HttpBaseRequest, mKeepAliveCallback, 136);
WENDREL_PLACE(qv::HttpBaseRequest, mOriginalFullUrl, 168);
WENDREL_PLACE(qv::HttpBaseRequest, mUrl, 200);
WENDREL_PLACE(qv::HttpBaseRequest, mHeaders, 424);
WENDREL_PLACE(qv::HttpBaseRequest, mCookies, 520);
WENDREL_PLACE(qv::HttpBaseRequest, mQueryParameters, 568);
WENDREL_PLACE(qv::HttpBaseRequest, mParseError, 616);
WENDREL_PLACE(qv::HttpBaseRequest, mAuxTimeMs, 648);
WENDREL_PLACE(qv::HttpBaseRequest, mKeepAliveIntervalMs, 656);
WENDREL_PLACE(qv::HttpBaseRequest, mBodyPending, 660);
WENDREL_PLACE(qv::HttpBaseRequest, mRequestType, 662);
WENDREL_PLACE(qv::HttpBaseRequest, mHasParseError, 664);
WENDREL_PLACE(qv::HttpBaseRequest, mCompleted, 665);
WENDREL_PLACE(qv::HttpBaseRequest, mRecord, 672);
WENDREL_PLACE(qv::HttpBaseRequest, mResponseStatus, 680);
WENDREL_PLACE(qv::HttpBaseRequest, mTls, 688);
WENDREL_PLACE(qv::HttpBaseRequest, getResponse, 2);
WENDREL_PLACE(qv::HttpBaseRequest, getWaitListener, 3);
WENDREL_PLACE(qv::HttpBaseRequest, onCompleted, 4);
WENDREL_PLACE(qv::HttpBaseRequest, onBodyComplete, 5);
WENDREL_PLACE(qv::HttpBaseRequest, onAborted, 6);
WENDREL_PLACE(qv::HttpBaseRequest, onUpgraded, 7);
WENDREL_PLACE(qv::HttpBaseRequest, onBodyPaused, 8);
WENDREL_PLACE(qv::HttpBaseRequest, onBodyReceived, 9);

WENDREL_PLACE(qv::HttpWaitListener, onWaitingForData, 2);

WENDREL_PLACE(qv::MemoryAccount, mBudget, 0);

WENDREL_PLACE(qv::UpgradedConnection, mDescriptor, 0);
WENDREL_PLACE(qv::UpgradedConnection, mReceivedBytes, 8);
WENDREL_PLACE(qv::UpgradedConnection, mPeerAddress, 40);
WENDREL_PLACE(qv::UpgradedConnection, mPlace, 64);
WENDREL_PLACE(qv::UpgradedConnection, mIsCutOff, 80);

WENDREL_PLACE(qv::HttpReceiveDevice, mMutex, 88);
WENDREL_PLACE(qv::HttpReceiveDevice, mDataArrived, 128);
WENDREL_PLACE(qv::HttpReceiveDevice, mAtEnd, 176);
WENDREL_PLACE(qv::HttpReceiveDevice, mRequest, 184);
WENDREL_PLACE(qv::HttpReceiveDevice, mQueue, 192);
WENDREL_PLACE(qv::HttpReceiveDevice, mQueuedBytes, 216);
WENDREL_PLACE(qv::HttpReceiveDevice, mWantedBytes, 224);
WENDREL_PLACE(qv::HttpReceiveDevice, mReadOffset, 232);
WENDREL_PLACE(qv::HttpReceiveDevice, mReceivedBytes, 240);
WENDREL_PLACE(qv::HttpReceiveDevice, mFeedEnded, 248);
WENDREL_PLACE(qv::HttpReceiveDevice, mFeedPaused, 249);
WENDREL_PLACE(qv::HttpReceiveDevice, mQueueLimitBytes, 256);
WENDREL_PLACE(qv::HttpReceiveDevice, mAwaitsMemory, 264);
WENDREL_PLACE(qv::HttpReceiveDevice, mMustNotPause, 265);
WENDREL_PLACE(qv::HttpReceiveDevice, mChargedBytes, 272);
WENDREL_PLACE(qv::HttpReceiveDevice, mBudget, 280);
WENDREL_PLACE(qv::HttpReceiveDevice, readBytes, 2);
WENDREL_PLACE(qv::HttpReceiveDevice, writeBytes, 3);
WENDREL_PLACE(qv::HttpReceiveDevice, atEnd, 4);

WENDREL_PLACE(qv::HttpResponseDevice, mRequest, 88);
WENDREL_PLACE(qv::HttpResponseDevice, mResponseState, 96);
WENDREL_PLACE(qv::HttpResponseDevice, mReadyQueue, 104);
WENDREL_PLACE(qv::HttpResponseDevice, mReadyBytes, 128);
WENDREL_PLACE(qv::HttpResponseDevice, mFillQueue, 136);
WENDREL_PLACE(qv::HttpResponseDevice, mFillBytes, 160);
WENDREL_PLACE(qv::HttpResponseDevice, mLastHandOverMs, 168);
WENDREL_PLACE(qv::HttpResponseDevice, mSendQueue, 176);
WENDREL_PLACE(qv::HttpResponseDevice, mSendOffset, 200);
WENDREL_PLACE(qv::HttpResponseDevice, mSentBytes, 208);
WENDREL_PLACE(qv::HttpResponseDevice, mMutex, 216);
WENDREL_PLACE(qv::HttpResponseDevice, mSpaceFreed, 224);
WENDREL_PLACE(qv::HttpResponseDevice, mCompleted, 232);
WENDREL_PLACE(qv::HttpResponseDevice, mTakenWhole, 233);
WENDREL_PLACE(qv::HttpResponseDevice, mFlushRequested, 234);
WENDREL_PLACE(qv::HttpResponseDevice, mSuspended, 235);
WENDREL_PLACE(qv::HttpResponseDevice, mSourceResumed, 236);
WENDREL_PLACE(qv::HttpResponseDevice, mSource, 240);
WENDREL_PLACE(qv::HttpResponseDevice, mSourceSignal, 248);
WENDREL_PLACE(qv::HttpResponseDevice, mBodyUnread, 264);
WENDREL_PLACE(qv::HttpResponseDevice, mDiscardedBytes, 272);
WENDREL_PLACE(qv::HttpResponseDevice, readBytes, 2);
WENDREL_PLACE(qv::HttpResponseDevice, writeBytes, 3);
WENDREL_PLACE(qv::HttpResponseDevice, atEnd, 4);

WENDREL_PLACE(qv::BodySource, getLength, 2);
WENDREL_PLACE(qv::BodySource, read, 3);
WENDREL_PLACE(qv::BodySource, setRange, 4);
WENDREL_PLACE(qv::BodySource, getMemory, 5);
WENDREL_PLACE(qv::BodySource, getResumer, 6);
WENDREL_PLACE(qv::BodySource, getBlockBytes, 7);

WENDREL_PLACE(qv::BodyResumer, mSignal, 0);

WENDREL_PLACE(qv::HttpResponseInterface, getCookies, 2);
WENDREL_PLACE(qv::HttpResponseInterface, getHeaders, 3);
WENDREL_PLACE(qv::HttpResponseInterface, getStatusCode, 4);
WENDREL_PLACE(qv::HttpResponseInterface, getContentLength, 5);
WENDREL_PLACE(qv::HttpResponseInterface, describe, 6);

WENDREL_PLACE(qv::http::WebSocket, blockSize, 8);
WENDREL_PLACE(qv::http::WebSocket, writeOffset, 16);
WENDREL_PLACE(qv::http::WebSocket, lastWriteFill, 24);
WENDREL_PLACE(qv::http::WebSocket, readOffset, 32);
WENDREL_PLACE(qv::http::WebSocket, lastReadFill, 40);
WENDREL_PLACE(qv::http::WebSocket, upgradeHandle, 48);
WENDREL_PLACE(qv::http::WebSocket, lock, 56);
WENDREL_PLACE(qv::http::WebSocket, message, 96);
WENDREL_PLACE(qv::http::WebSocket, currentThread, 120);
WENDREL_PLACE(qv::http::WebSocket, writeQueue, 152);
WENDREL_PLACE(qv::http::WebSocket, readQueue, 176);
WENDREL_PLACE(qv::http::WebSocket, socket, 200);
WENDREL_PLACE(qv::http::WebSocket, messageIsBinary, 204);
WENDREL_PLACE(qv::http::WebSocket, readPending, 205);
WENDREL_PLACE(qv::http::WebSocket, writePending, 206);
WENDREL_PLACE(qv::http::WebSocket, onMessageReceived, 2);

WENDREL_PLACE(qv::http::WebSocketThread, workers, 112);
WENDREL_PLACE(qv::http::WebSocketThread, newSockets, 136);
WENDREL_PLACE(qv::http::WebSocketThread, readySockets, 160);
WENDREL_PLACE(qv::http::WebSocketThread, lock, 184);
WENDREL_PLACE(qv::http::WebSocketThread, workerWake, 224);
WENDREL_PLACE(qv::http::WebSocketThread, pollWake, 272);
WENDREL_PLACE(qv::http::WebSocketThread, pollThreadIdle, 320);
WENDREL_PLACE(qv::http::WebSocketThread, running, 321);
WENDREL_PLACE(qv::http::WebSocketThread, run, 2);

WENDREL_PLACE(qv::http::WebSocketWorkerThread, mOwner, 112);
WENDREL_PLACE(qv::http::WebSocketWorkerThread, run, 2);

WENDREL_PLACE(qv::qvIoDevice, mDataWay, 8);
WENDREL_PLACE(qv::qvIoDevice, mHasError, 12);
WENDREL_PLACE(qv::qvIoDevice, mErrorMutex, 16);
WENDREL_PLACE(qv::qvIoDevice, mErrorMsg, 56);
WENDREL_PLACE(qv::qvIoDevice, readBytes, 2);
WENDREL_PLACE(qv::qvIoDevice, writeBytes, 3);
WENDREL_PLACE(qv::qvIoDevice, atEnd, 4);
WENDREL_PLACE(qv::qvIoDevice, hasDeviceError, 5);
WENDREL_PLACE(qv::qvIoDevice, getDeviceErrorMsg, 6);
WENDREL_PLACE(qv::qvIoDevice, writeBackToDevice, 7);

WENDREL_PLACE(qv::qvThread, mMutex, 8);
WENDREL_PLACE(qv::qvThread, mEnded, 48);
WENDREL_PLACE(qv::qvThread, mThread, 96);
WENDREL_PLACE(qv::qvThread, mRunning, 104);
WENDREL_PLACE(qv::qvThread, run, 2);

WENDREL_PLACE(qv::qvMutex, mMutex, 0);

WENDREL_PLACE(qv::qvWaitCondition, mCondition, 0);

WENDREL_PLACE(qv::IpAddress, mFamily, 0);
WENDREL_PLACE(qv::IpAddress, mPort, 2);
WENDREL_PLACE(qv::IpAddress, mBytes, 4);

WENDREL_PLACE(qv::Url, mScheme, 0);
WENDREL_PLACE(qv::Url, mHost, 32);
WENDREL_PLACE(qv::Url, mPath, 64);
WENDREL_PLACE(qv::Url, mEncodedPath, 96);
WENDREL_PLACE(qv::Url, mPathSegments, 128);
WENDREL_PLACE(qv::Url, mQuery, 152);
WENDREL_PLACE(qv::Url, mFragment, 184);
WENDREL_PLACE(qv::Url, mPort, 216);
WENDREL_PLACE(qv::Url, mValid, 218);

WENDREL_PLACE(qv::http::HttpHeaders, mValues, 0);
WENDREL_PLACE(qv::http::HttpHeaders, mLines, 48);

WENDREL_PLACE(qv::http::HttpServer::Parameters, port, 0);
WENDREL_PLACE(qv::http::HttpServer::Parameters, listenBacklog, 4);
WENDREL_PLACE(qv::http::HttpServer::Parameters, threadPoolSize, 8);
WENDREL_PLACE(qv::http::HttpServer::Parameters, connectionTimeoutMs, 12);
WENDREL_PLACE(qv::http::HttpServer::Parameters, allowWebSocket, 16);
WENDREL_PLACE(qv::http::HttpServer::Parameters, reserved1, 17);
WENDREL_PLACE(qv::http::HttpServer::Parameters, reserved2, 18);
WENDREL_PLACE(qv::http::HttpServer::Parameters, reserved3, 19);
WENDREL_PLACE(qv::http::HttpServer::Parameters, listenOnAllInterfaces, 20);

// Entries 0 and 1 of a table are the destructor's, unless the class has other operations before it.

static_assert(sizeof(qv::http::HttpServer) == 336);
static_assert(sizeof(qv::http::HttpServerImpl) == 40);
static_assert(sizeof(qv::HttpBaseRequest) == 704);
static_assert(sizeof(qv::HttpWaitListener) == 8);
static_assert(sizeof(qv::MemoryAccount) == 16);
static_assert(sizeof(qv::UpgradedConnection) == 96);
// Elements of vectors.
static_assert(sizeof(qv::http::TlsCertificate) == 208);
static_assert(sizeof(qv::http::TlsOptions) == 256);
static_assert(sizeof(qv::HttpReceiveDevice) == 296);
static_assert(sizeof(qv::HttpResponseDevice) == 280);
static_assert(sizeof(qv::BodySource) == 8);
static_assert(sizeof(qv::BodyResumer) == 16);
static_assert(sizeof(qv::BodyRead) == 16);
static_assert(sizeof(qv::HttpResponseInterface) == 8);
static_assert(sizeof(qv::http::WebSocket) == 208);
static_assert(sizeof(qv::http::WebSocketThread) == 328);
static_assert(sizeof(qv::http::WebSocketWorkerThread) == 120);
static_assert(sizeof(qv::qvIoDevice) == 88);
static_assert(sizeof(qv::qvThread) == 112);
static_assert(sizeof(qv::qvMutex) == 40);
static_assert(sizeof(qv::qvWaitCondition) == 48);
static_assert(sizeof(qv::IpAddress) == 20);
static_assert(sizeof(qv::Url) == 224);
static_assert(sizeof(qv::http::HttpHeaders) == 96);
static_assert(sizeof(qv::http::HttpServer::Parameters) == 24);

constexpr size_t kPlaces = 183;

TEST(Layout, EveryMemberAndVirtualOperationIsInItsPlace)
{
    EXPECT_EQ(places().size(), kPlaces);
    for (const Place& place : places())
        EXPECT_EQ(place.found, place.wanted) << place.name;
}

// A base class and the class derived from it share one address: a conversion between them does not
// change the pointer.
template <typename Base, typename Derived> bool beginsWith()
{
    alignas(Derived) static unsigned char storage[sizeof(Derived)];
    auto* const derived = reinterpret_cast<Derived*>(storage);
    return static_cast<void*>(static_cast<Base*>(derived)) == static_cast<void*>(derived);
}

TEST(Layout, ABaseLiesAtTheBeginningOfWhatIsDerivedFromIt)
{
    EXPECT_TRUE((beginsWith<qv::qvThread, qv::http::HttpServer>()));
    EXPECT_TRUE((beginsWith<qv::qvThread, qv::http::WebSocketThread>()));
    EXPECT_TRUE((beginsWith<qv::qvThread, qv::http::WebSocketWorkerThread>()));
    EXPECT_TRUE((beginsWith<qv::qvIoDevice, qv::HttpReceiveDevice>()));
    EXPECT_TRUE((beginsWith<qv::qvIoDevice, qv::HttpResponseDevice>()));
    EXPECT_TRUE((beginsWith<qv::Url, qv::http::HttpUrl>()));
}

}  // namespace
