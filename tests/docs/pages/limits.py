"""Holds the table of docs/limits-and-defaults.md against the code.

A row that links a name to a file of ours, as in [`kLimitBytes`](../src/File.cpp), must have the value
that this file gives to it. Every number of src/, kit/ and platform/ that is a constant, and every
default of the parameters and options, must have a row or stand in NOT_FOR_USERS.

    limits.py ROOT            compares
    limits.py ROOT --broken   tries whether changed constants and tables are noticed
"""

import ast
import operator
import pathlib
import re
import sys

PAGE = "docs/limits-and-defaults.md"
FOLDERS = ("include", "src", "kit", "platform")

# Constants without effect for users, with the reason.
NOT_FOR_USERS = {
    "src/server/logging/LogObject.h kInformation": "a level's number, see qvLog::Level",
    "kit/src/ResponseHead.cpp kFirstNumber": "makes numbers sort like their texts",
    "src/server/logging/LogObject.h kWarning": "a level's number",
    "src/server/logging/LogObject.h kError": "a level's number",
    "src/server/logging/LogObject.h kDiscard": "marks a statement that logs nothing",
    "src/streaming/ChunkPool.h kGroupSlots": "where a thread looks first",
    "src/streaming/ChunkPool.h kCacheLineBytes": "the processor's",
    "src/streaming/ChunkPool.h kEmpty": "a state",
    "src/streaming/ChunkPool.h kBusy": "a state",
    "src/request/ContextRegistry.cpp kMultiplier": "an algorithm's",
    "src/request/ContextRegistry.cpp kShift": "an algorithm's",
    "src/request/ContextRegistry.h kMaxPooled": "contexts kept; some kilobytes",
    "src/request/ContextRegistry.h kBuckets": "hash chains; each is as long as it must be",
    "src/request/StrictRequest.h kBadRequest": "a status",
    "src/request/StrictRequest.h kNotImplemented": "a status",
    "src/request/StrictRequest.cpp kToken": "a class of characters",
    "src/request/StrictRequest.cpp kTarget": "a class of characters",
    "src/request/StrictRequest.cpp kRegisteredName": "a class of characters",
    "src/request/StrictRequest.cpp kLiteral": "a class of characters",
    "src/request/StrictRequest.cpp kDigits": "of a percent-encoded byte",
    "src/request/StrictRequest.cpp kMaxLength": "the protocol's: 2^63 - 1",
    "src/request/StrictRequest.h refuse(status)": "a status",
    "src/request/StrictRequest.cpp kByteValues": "how many bytes there are",
    "src/request/StrictRequest.cpp kOnes": "an algorithm's",
    "src/request/StrictRequest.cpp kHighBits": "an algorithm's",
    "src/request/StrictRequest.cpp kStep": "an algorithm's",
    "src/server/StrictPositions.cpp kEndOfLineBytes": "the protocol's",
    "src/server/StrictPositions.cpp kSeparatorBytes": "the protocol's",
    "src/server/StrictPositions.cpp kProbeMemoryBytes": "of the test of the daemon",
    "src/server/StrictPositions.cpp kMaxSteps": "of the test of the daemon",
    "src/server/StrictPositions.cpp kStrictForClient": "as in polling mode",
    "src/request/ConnectionContext.h kTimeNotSet": "marks a time that has not been set",
    "src/request/DispatchAccess.h kNotReady": "a state",
    "src/request/DispatchAccess.h kReady": "a state",
    "src/request/DispatchAccess.h kStreamed": "a state",
    "src/request/DispatchAccess.h kSentWhole": "a state",
    "src/request/DispatchAccess.h kReadyInError": "a state",
    "src/request/Utf8.cpp kStateBits": "an algorithm's",
    "src/request/Utf8.cpp kStateMask": "an algorithm's",
    "src/request/Utf8.cpp kBlockBytes": "an algorithm's",
    "src/request/Utf8.cpp kHighBits": "an algorithm's",
    "src/listener/Connection.cpp kFirstFinal": "a status",
    "src/listener/Connection.cpp kLastFinal": "a status",
    "src/listener/Connection.cpp kServerError": "a status",
    "src/listener/Connection.cpp kStatusAt": "a place in a status line",
    "src/listener/Listener.cpp kNoContent": "a status",
    "src/listener/Listener.cpp kNotModified": "a status",
    "src/listener/Listener.cpp kMaxReadsAtOnce": "divides the reading of refused connections",
    "src/server/UpgradeExchange.cpp kWrongVersionPageBytes": "length of a text",
    "src/websocket/AcceptKey.cpp kDigestCapacityBytes": "capacity for a digest",
    "src/websocket/AcceptKey.cpp kDigestBytes": "size of a digest",
    "src/websocket/FrameHeader.cpp kFinBit": "the protocol's",
    "src/websocket/FrameHeader.cpp kLengthBits": "the protocol's",
    "src/websocket/FrameHeader.cpp kOpcodeBits": "the protocol's",
    "src/websocket/FrameHeader.cpp kContinuation": "the protocol's",
    "src/websocket/FrameHeader.cpp kText": "the protocol's",
    "src/websocket/FrameHeader.cpp kBinary": "the protocol's",
    "src/websocket/FrameHeader.cpp kMaxInByte": "the protocol's",
    "src/websocket/FrameHeader.cpp kMaxInTwoBytes": "the protocol's",
    "src/websocket/FrameHeader.cpp kTwoByteLength": "the protocol's",
    "src/websocket/FrameHeader.cpp kEightByteLength": "the protocol's",
    "src/websocket/FrameHeader.cpp kMaskBytes": "the protocol's",
    "src/websocket/FrameHeader.cpp kShortHeaderBytes": "the protocol's",
    "src/websocket/FrameHeader.cpp kTwoByteHeaderBytes": "the protocol's",
    "src/websocket/FrameHeader.cpp kEightByteHeaderBytes": "the protocol's",
    "src/websocket/FrameHeader.cpp kEightByteLengthEnd": "the protocol's",
    "src/websocket/Unmask.cpp kKeyBytes": "the protocol's",
    "src/websocket/Unmask.cpp kRoundBytes": "an algorithm's",
    "src/websocket/WebSocket.cpp kClientHeaderBytes": "the protocol's",
    "src/websocket/WebSocket.cpp kServerHeaderBytes": "the protocol's",
    "src/websocket/WebSocket.cpp kMinFrameBytes": "the protocol's",
    "src/websocket/WebSocket.cpp kMaskBytes": "the protocol's",
    "kit/src/WebSocketRoute.cpp kSwitchingProtocols": "a status",
    "kit/src/Exchange.cpp kNoContent": "a status",
    "kit/src/Exchange.cpp kNotModified": "a status",
    "kit/src/Exchange.cpp kBadRequest": "a status",
    "kit/src/Exchange.cpp kNotFound": "a status",
    "kit/src/Exchange.cpp kMethodNotAllowed": "a status",
    "kit/src/Exchange.cpp kContentTooLarge": "a status",
    "kit/src/Exchange.cpp kServerError": "a status",
    "kit/src/Exchange.cpp kNotImplemented": "a status",
    "kit/src/Exchange.cpp kUnavailable": "a status",
    "kit/src/Exchange.cpp kMinStatus": "a status",
    "kit/src/Exchange.cpp kMaxStatus": "a status",
    "kit/include/Wendrel/kit/Middleware.h securityHeaders(headers)": "told in the page",
    "kit/include/Wendrel/kit/Router.h before(thread)": "one of two",
    "kit/src/Exchange.h kHooksPassed": "a state",
    "kit/src/Exchange.h kBodyComplete": "a state",
    "kit/src/AccessText.cpp kMicrosecondsPerSecond": "a unit",
    "kit/src/AccessText.cpp kFirstYear": "the system's",
    "kit/src/AccessText.cpp kByteValues": "how many bytes there are",
    "kit/src/RateLimiter.cpp kDigestBytes": "of SHA-256",
    "kit/src/AccessWriter.cpp kFlags": "the system's",
    "kit/src/AccessWriter.cpp kMode": "told at logAccess",
    "kit/include/Wendrel/kit/Server.h logAccess(format)": "one of two",
    "kit/src/Metrics.cpp kMicrosecondsPerSecond": "a unit",
    "kit/src/Metrics.h kMaxStatuses": "more than there are",
    "kit/src/Metrics.h kMaxReasons": "more than there are",
    "kit/src/Server.cpp kOk": "a status",
    "kit/src/Server.cpp kUnavailable": "a status",
    "kit/src/Middleware.cpp kNoContent": "a status",
    "kit/src/Middleware.cpp kBadRequest": "a status",
    "kit/src/Middleware.cpp kUnauthorized": "a status",
    "kit/src/Middleware.cpp kForbidden": "a status",
    "kit/src/Middleware.cpp kTooManyRequests": "a status",
    "kit/src/Middleware.cpp kRandomIdBytes": "half of the digits of an identifier",
    "kit/src/RateLimiter.cpp kNetworkBytes": "told with the row of rateLimit",
    "kit/src/RateLimiter.cpp kMappedBytes": "the protocol's",
    "kit/src/RateLimiter.h kShards": "where a thread looks",
    "kit/src/Parameter.cpp kBadRequest": "a status",
    "kit/src/Parameter.cpp kMaxQuotedBytes": "of a value in the text of an error",
    "kit/include/Wendrel/kit/Parameter.h asText(maxBytes)": "means: none",
    "kit/src/CookieSigner.cpp kDigestBytes": "size of a digest",
    "kit/include/Wendrel/kit/CookieSigner.h sign(now)": "means: the present",
    "kit/include/Wendrel/kit/CookieSigner.h verify(now)": "means: the present",
    "kit/src/Json.cpp kBadRequest": "a status",
    "kit/src/Json.cpp kUnsupportedType": "a status",
    "kit/src/Accept.cpp kFullWeight": "the protocol's",
    "kit/src/Accept.cpp kMaxDigits": "the protocol's",
    "kit/src/Form.cpp kBadRequest": "a status",
    "kit/src/Form.cpp kContentTooLarge": "a status",
    "kit/src/Form.cpp kUnsupportedType": "a status",
    "kit/src/Form.cpp kInsufficientStorage": "a status",
    "kit/src/Form.cpp kBlockBytes": "how much is read or written at once",
    "kit/src/Form.cpp kMaxBoundaryBytes": "the protocol's",
    "kit/src/Form.cpp kFlags": "the system's",
    "kit/src/Form.cpp kMode": "the system's",
    "kit/src/Beneath.cpp kReadFlags": "the system's",
    "kit/src/Beneath.cpp kDirectoryFlags": "the system's",
    "kit/src/Beneath.cpp kMaxAttempts": "of a path that is renamed meanwhile; then name by name",
    "kit/src/Compressor.cpp kGzipWrapper": "the compressor's",
    "kit/src/Compressor.cpp kGzipMemoryLevel": "the compressor's",
    "kit/src/Compressor.cpp kMinStepBytes": "the compressor's",
    "kit/src/Compressor.cpp kMaxPiece": "the compressor's",
    "kit/src/Compressor.cpp kMaxTakenBytes": "how long others wait for a response",
    "kit/src/ResponseCoding.cpp kOk": "a status",
    "kit/src/ResponseCoding.cpp kNonAuthoritative": "a status",
    "kit/src/ResponseCoding.cpp kPartial": "a status",
    "kit/src/ResponseCoding.cpp kNotModified": "a status",
    "kit/src/ResponseCoding.cpp kMinError": "a status",
    "kit/src/ResponseCoding.cpp kBlockBytes": "how much is written at once",
    "kit/src/Conditional.cpp kLargest": "an algorithm's",
    "kit/src/Directory.cpp kMovedPermanently": "a status",
    "kit/src/Directory.cpp kForbidden": "a status",
    "kit/src/Directory.cpp kNotFound": "a status",
    "kit/src/FileResponse.cpp kOk": "a status",
    "kit/src/FileResponse.cpp kPartial": "a status",
    "kit/src/FileResponse.cpp kForbidden": "a status",
    "kit/src/FileResponse.cpp kNotFound": "a status",
    "kit/src/FileResponse.cpp kPreconditionFailed": "a status",
    "kit/src/FileResponse.cpp kRangeNotSatisfiable": "a status",
    "kit/src/FileResponse.cpp kServerError": "a status",
    "kit/src/FileResponse.cpp kUnavailable": "a status",
    "kit/src/FileResponse.cpp kRetryAfterSeconds": "for a client that comes again",
    "kit/src/HttpDate.cpp kFirstYear": "the system's",
    "kit/src/HttpDate.cpp kFutureYears": "the protocol's",
    "kit/src/HttpDate.cpp kLeapSecond": "the calendar's",
    "kit/src/RangesSource.cpp kWords": "of a random text",
    "kit/src/MultipartReader.cpp kBadRequest": "a status",
    "kit/src/MultipartReader.cpp kPieceBytes": "how much is read at once",
    "kit/src/FileName.cpp kMaxExtensionBytes": "of an extension that is kept when a name is shortened",
    "kit/src/EventStream.cpp kUnavailable": "a status",
    "kit/src/EventStream.cpp kRetryAfterSeconds": "told with the rows of 503",
    "kit/include/Wendrel/kit/EventStream.h EventStreamOptions::slowClient": "one of two; see the row of the queue",
    "kit/src/RouteTable.h kMethods": "how many methods there are bits for",
    "kit/src/ServerCore.cpp kMaxWorkers": "checked range of an option",
    "kit/src/StreamQueue.cpp kMaxKeptBytes": "memory of an empty queue",
    "kit/include/Wendrel/kit/DeferredResponse.h startStream(queueBytes)": "that of kDefaultQueueBytes",
    "kit/include/Wendrel/kit/DeferredResponse.h setDeadline(status)": "a status",
    "kit/websocket/Buffer.h kMinCapacityBytes": "where a buffer begins to grow",
    "kit/websocket/Connection.cpp kMaxTurnBytes": "how long others wait for a connection",
    "kit/websocket/Connection.cpp kMaxOutBytes": "how much is collected for one call",
    "kit/websocket/Connection.cpp kMinUncopiedBytes": "an algorithm's",
    "kit/websocket/Connection.cpp kMaxFramesAtOnce": "how much is collected for one call",
    "kit/websocket/Connection.cpp kMaxTakenBytes": "how much is collected for one call",
    "kit/websocket/Connection.cpp kMaxKeptFrames": "memory kept; some bytes",
    "kit/websocket/Connection.cpp kShrinkDelayMs": "memory kept for a moment",
    "kit/websocket/Deflate.cpp kMinWindowBits": "the compressor's",
    "kit/websocket/Deflate.cpp kMaxWindowBits": "the protocol's",
    "kit/websocket/Deflate.cpp kTailBytes": "the protocol's",
    "kit/websocket/Deflate.cpp kAtEndOfBlock": "the compressor's",
    "kit/websocket/Deflate.h kBytes": "memory of a decompressor",
    "kit/websocket/Deflate.cpp kWindowBytes": "the protocol's",
    "kit/websocket/Deflate.cpp kInflateStepBytes": "an algorithm's",
    "kit/websocket/Deflate.cpp kMaxStepBytes": "an algorithm's",
    "kit/websocket/Deflate.cpp kMaxZlibBytes": "the compressor's",
    "kit/websocket/Deflate.cpp kFlushBytes": "the compressor's",
    "kit/websocket/MessageParser.cpp kInflatedPartBytes": "an algorithm's",
    "kit/websocket/MessageParser.cpp kMaxTurnWorkBytes": "how long others wait for a connection",
    "kit/websocket/DeflateOffers.cpp kMinWindowBits": "the protocol's",
    "kit/websocket/DeflateOffers.cpp kMaxWindowBits": "the protocol's",
    "kit/websocket/DeflateOffers.cpp kMinOwnWindowBits": "the compressor's",
    "kit/websocket/Engine.cpp kMaxDeadline": "checked range of an argument",
    "kit/websocket/Frame.cpp kFinBit": "the protocol's",
    "kit/websocket/Frame.cpp kRsv1Bit": "the protocol's",
    "kit/websocket/Frame.cpp kReservedBits": "the protocol's",
    "kit/websocket/Frame.cpp kOpcodeBits": "the protocol's",
    "kit/websocket/Frame.cpp kControlBit": "the protocol's",
    "kit/websocket/Frame.cpp kMaskBit": "the protocol's",
    "kit/websocket/Frame.cpp kLengthBits": "the protocol's",
    "kit/websocket/Frame.cpp kTwoByteLength": "the protocol's",
    "kit/websocket/Frame.cpp kEightByteLength": "the protocol's",
    "kit/websocket/Frame.cpp kMaxTwoByteLength": "the protocol's",
    "kit/websocket/Frame.cpp kBitsOfByte": "an algorithm's",
    "kit/websocket/Frame.cpp kCodeBytes": "the protocol's",
    "kit/websocket/Frame.cpp kLanes": "an algorithm's",
    "kit/websocket/Frame.h kNormal": "a close code",
    "kit/websocket/Frame.h kGoingAway": "a close code",
    "kit/websocket/Frame.h kProtocolError": "a close code",
    "kit/websocket/Frame.h kNoStatus": "a close code",
    "kit/websocket/Frame.h kAbnormal": "a close code",
    "kit/websocket/Frame.h kInvalidData": "a close code",
    "kit/websocket/Frame.h kTooBig": "a close code",
    "kit/websocket/Frame.h kInternalError": "a close code",
    "kit/websocket/Frame.h kTryAgainLater": "a close code",
    "kit/websocket/Frame.h kMaxHeaderBytes": "the protocol's",
    "kit/websocket/Frame.h kMaxServerHeaderBytes": "the protocol's",
    "kit/websocket/Frame.h kMaskBytes": "the protocol's",
    "kit/websocket/Handshake.cpp kSwitching": "a status",
    "kit/websocket/Handshake.cpp kBadRequest": "a status",
    "kit/websocket/Handshake.cpp kForbidden": "a status",
    "kit/websocket/Handshake.cpp kWrongMethod": "a status",
    "kit/websocket/Handshake.cpp kUpgradeRequired": "a status",
    "kit/websocket/Handshake.cpp kKeyCharacters": "the protocol's",
    "kit/websocket/Connection.cpp kMaxNoticesAtOnce": "how long others wait for a worker",
    "kit/websocket/Handshake.cpp kKeyDigits": "the protocol's",
    "kit/websocket/Handshake.cpp kVersion": "the protocol's",
    "kit/websocket/Loop.cpp kMaxEvents": "events fetched at once",
    "kit/websocket/Loop.cpp kMaxTimeoutMs": "the system's",
    "kit/websocket/MessageParser.cpp kMinDirectBytes": "an algorithm's",
    "kit/websocket/MessageParser.cpp kMaxDirectBytes": "how long others wait for a connection",
    "kit/websocket/MessageParser.cpp kDeflateShare": "more than compression ever adds",
    "kit/websocket/MessageParser.cpp kDeflateExtraBytes": "more than compression ever adds",
    "kit/websocket/Strand.cpp kNoticeBytes": "how callbacks are counted",
    "kit/websocket/TimerWheel.h kSlots": "how far the wheel reaches",
    "kit/websocket/TimerWheel.h kWordBits": "an algorithm's",
    "kit/websocket/Utf8Check.cpp kBlockBytes": "an algorithm's",
    "kit/websocket/Utf8Check.cpp kHighBits": "an algorithm's",
    "kit/websocket/Utf8Check.cpp kMinContinuation": "the protocol's",
    "kit/websocket/Utf8Check.cpp kMaxContinuation": "the protocol's",
    "kit/include/Wendrel/kit/websocket/WebSocketOptions.h WebSocketOptions::Executor": "a type",
    "kit/include/Wendrel/kit/websocket/WebSocketOptions.h WebSocketOptions::queuePolicy": "one of several; see the row of the queue",
    "kit/include/Wendrel/kit/websocket/Engine.h EngineOptions::loops": "0 means: the processors",
    "platform/qvOpenSSL/src/Base64.cpp kPieceBytes": "an algorithm's",
    "platform/qvSystem/include/qvSystem/qvWaitCondition.h kNoTimeout": "means: none",
    "include/Wendrel/HttpServer.h serve(recordBytes)": "size of a record",
    "include/Wendrel/HttpServer.h checkOptions(recordBytes)": "size of a record",
    "kit/src/ServerSettings.cpp kMaxNumber": "of a size or duration as a text",
    "kit/src/ServiceManager.cpp kUsPerMs": "a unit",
    "kit/src/ServiceManager.cpp kNsPerUs": "a unit",
    "kit/src/ServiceManager.cpp kUsPerSecond": "a unit",
    "kit/src/StreamQueue.h StreamQueue(memory)": "means: no budget",
    "include/Wendrel/BodySource.h kToEnd": "means: to the end",
    "include/Wendrel/BodySource.h setRange(length)": "means: to the end",
    "include/Wendrel/BodySource.h fromDescriptor(length)": "means: to the end",
    "include/Wendrel/BodySource.h fromFile(length)": "means: to the end",
    "include/Wendrel/BodySource.h fromCallback(length)": "means: not known",
    "src/listener/Connection.cpp kMsPerSecond": "a unit",
    "src/listener/Connection.h kNoDeadline": "means: none",
    "src/listener/Connection.h kUnknownLength": "means: chunked",
    "src/listener/DeadlineWheel.h kSlots": "how far the wheel reaches",
    "src/listener/Endpoint.cpp kMaxMode": "the system's",
    "src/listener/Endpoint.cpp kFirstPassedDescriptor": "the service manager's",
    "src/listener/Endpoint.cpp kMaxPathBytes": "the system's",
    "src/listener/Listener.cpp kWakeKey": "a mark",
    "src/listener/Listener.cpp kListenFlag": "a mark",
    "src/listener/Listener.cpp kUndecidedFlag": "a mark",
    "src/listener/Listener.cpp kSinkShift": "a position of bits",
    "src/listener/Listener.cpp kDescriptorMask": "a position of bits",
    "src/listener/Listener.cpp kMaxEvents": "events fetched at once",
    "src/listener/Listener.cpp kMaxAcceptsAtOnce": "how long others wait for a burst",
    "src/listener/Listener.cpp kReminderMs": "interval of repeated actions",
    "src/listener/Listener.cpp kRepeatMs": "interval of repeated actions",
    "src/listener/Listener.cpp kDrainStepMs": "interval of checks during a shutdown",
    "src/listener/Listener.cpp kMemoryPauseMs": "pause without memory",
    "src/listener/Listener.cpp kMaxProbeSeconds": "the system's",
    "src/listener/Listener.cpp kPrefixBytes": "the protocol's",
    "src/listener/Listener.h kNudgeConnections": "the daemon's",
    "src/listener/Listener.h kFullBatch": "events that the daemon fetches at once",
    "src/listener/Listener.h kFullBatchNudgeMs": "as kNudgeMs",
    "src/listener/Listener.h kIdleNudgeMs": "as kNudgeMs",
    "src/listener/Listener.h kNudgeMs": "bound of a wait of the daemon, see the page of event-driven mode",
    "kit/src/CertificateWatch.cpp kNsPerSecond": "a unit",
    "src/listener/Endpoint.h kPlain": "means: none",
    "include/Wendrel/TlsOptions.h TlsOptions::minimumVersion": "a version, in the table without its number",
    "include/Wendrel/TlsOptions.h TlsOptions::clientCertificates": "in the table in words",
    "src/listener/TlsContext.cpp kOptions": "of OpenSSL",
    "src/listener/TlsContext.cpp kModes": "of OpenSSL",
    "src/listener/TlsFirstBytes.h kMaxFirstBytes": "the protocol's",
    "src/listener/TlsHandshakes.cpp kMaxEvents": "events fetched at once",
    "src/listener/TlsHandshakes.cpp kSweepMs": "interval of checks",
    "src/listener/TlsHandshakes.cpp kNoTimeout": "means: none",
    "src/listener/TlsDelivery.h kNotMarked": "no position yet",
    "src/listener/TlsHandshakes.cpp kWakeNumber": "tells events apart",
    "src/listener/TlsHop.cpp kMaxReadsAtOnce": "divides the reading of ended connections",
    "src/listener/TlsHop.h kTurnBytes": "how long other connections wait",
    "src/listener/TlsHop.h kBufferBytes": "of a thread",
    "src/listener/TlsRelay.cpp kMaxEvents": "events fetched at once",
    "src/listener/TlsRelay.cpp kSweepMs": "interval of checks",
    "src/listener/TlsRelay.cpp kNoTimeout": "means: none",
    "src/listener/TlsRelay.cpp kPairBit": "a mark",
    "src/listener/TlsTicketKeys.h kMaxKeys": "as many as kTicketSeconds needs",
    "src/server/Admission.cpp kHttpsPort": "the protocol's",
    "src/server/EventServer.cpp kDescriptorsOfSecure": "counts of our own",
    "src/server/EventServer.cpp kDescriptorsOfRelay": "counts of our own",
    "src/server/SecureEndpoints.cpp kMaxTimeout": "as that of other timeouts",
    "src/listener/ProxyHeader.cpp kMaxPortDigits": "the protocol's",
    "src/listener/ProxyHeader.cpp kVersionPosition": "the protocol's",
    "src/listener/ProxyHeader.cpp kFamilyPosition": "the protocol's",
    "src/listener/ProxyHeader.cpp kLengthPosition": "the protocol's",
    "src/listener/ProxyHeader.cpp kFixedBytes": "the protocol's",
    "src/listener/ProxyHeader.cpp kLocal": "the protocol's",
    "src/listener/ProxyHeader.cpp kProxied": "the protocol's",
    "src/listener/ProxyHeader.cpp kIpv4Bytes": "the protocol's",
    "src/listener/ProxyHeader.cpp kPortBytes": "the protocol's",
    "src/request/AddressSet.cpp kMappedPrefixBits": "the protocol's",
    "src/request/AddressSet.cpp kBitsOfByte": "the protocol's",
    "src/request/AddressSet.cpp kBitsOfAddress": "the protocol's",
    "src/request/AddressSet.cpp kBitsOfIpv4": "the protocol's",
    "src/request/AddressSet.h kBytes": "the protocol's",
    "src/request/Forwarded.cpp kMaxPortDigits": "the protocol's",
    "src/server/EventDaemon.cpp kFlags": "the daemon's",
    "src/server/EventDaemon.cpp kNoConnectionLimit": "means: none",
    "src/server/EventDaemon.cpp kNoTimeout": "means: none",
    "src/server/EventDaemon.cpp kStrictForClient": "as in polling mode",
    "src/server/EventDispatch.cpp kRetryAfterSeconds": "told with the rows of 503",
    "src/server/EventServer.cpp kMaxThreads": "checked range of an option",
    "src/server/EventServer.cpp kMaxConnections": "checked range of an option",
    "src/server/EventServer.cpp kMinMemoryBytes": "checked range of an option",
    "src/server/EventServer.cpp kMaxMemoryBytes": "checked range of an option",
    "src/server/EventServer.cpp kMaxTimeout": "checked range of an option",
    "src/server/EventServer.cpp kDescriptorsOfDaemon": "descriptors of a daemon",
    "src/server/EventServer.cpp kMinConnections": "least number of connections",
    "src/server/HttpServer.cpp kStateCheckIntervalMs": "interval of checks during a start",
    "include/Wendrel/HttpServer.h Parameters::reserved1": "not used",
    "include/Wendrel/HttpServer.h Parameters::reserved2": "not used",
    "include/Wendrel/HttpServer.h Parameters::reserved3": "not used",
}

# Types whose constants are no numbers.
TEXTS = re.compile(r"string|\bchar\b|auto|std::array|Method|State\b")
CONSTANT = re.compile(r"\b(?:constexpr|const)\s+([\w:<>,\s*&]*?)\s*\b(k[A-Z]\w*)\s*"
                      r"(?:=\s*([^;]*)|\(([^;()]*)\)|\{([^;{}]*)\})\s*;")
STRUCT = re.compile(r"\bstruct\s+(?:\w+\s+)?(Parameters|Options|ServerOptions|TlsOptions|EventStreamOptions|CompressionOptions|RateLimitOptions|CorsOptions|FormLimits|WebSocketOptions|EngineOptions)"
                    r"(?:\s*:\s*[\w:]+)?\s*\{(.*?)\n\s*\};", re.S)
MEMBER = re.compile(r"^\s*([\w:]+(?:\s[\w:]+)*?)\s+(\w+)\s*(?:=\s*|\{)([^;{}]+)\}?;", re.M)
DEFAULT = re.compile(r"\b(\w+)\([^;{}()]*?\b([\w:]+)\s+(\w+)\s*=\s*((?:[^,;(){}]|\([^()]*\))+)\)")
ROW = re.compile(r"\[`([\w:]+?)(?:\((\w+)\))?`\]\(\.\./([^)]+)\)")

TO_MS = {"milliseconds": 1, "seconds": 1000, "minutes": 60000, "hours": 3600000}
UNITS = {"ms": ("ms", 1), "s": ("ms", 1000), "days": ("ms", 86400000), "bytes": ("bytes", 1)}
OPERATORS = {ast.Add: operator.add, ast.Sub: operator.sub, ast.Mult: operator.mul,
             ast.LShift: operator.lshift, ast.RShift: operator.rshift, ast.BitOr: operator.or_}


class Unknown(Exception):
    pass


def evaluate(text, others):
    """The value of a C++ expression of whole numbers and constants of the same file."""
    def walk(node):
        if isinstance(node, ast.Expression):
            return walk(node.body)
        if isinstance(node, ast.Constant) and isinstance(node.value, int):
            return node.value
        if isinstance(node, ast.UnaryOp) and isinstance(node.op, ast.USub):
            return -walk(node.operand)
        if isinstance(node, ast.BinOp) and type(node.op) in OPERATORS:
            return OPERATORS[type(node.op)](walk(node.left), walk(node.right))
        if isinstance(node, ast.Name) and node.id in others:
            return evaluate(others[node.id], others)
        raise Unknown(text)

    text = re.sub(r"(?<=\d)'(?=\d)", "", text)
    text = re.sub(r"\b(0[xX][0-9a-fA-F]+|\d+)[uUlL]+\b", r"\1", text)
    try:
        return walk(ast.parse(text.strip().replace("\n", " "), mode="eval"))
    except SyntaxError:
        raise Unknown(text) from None


def value_of(name, kind, text, others):
    """Unit and number of a constant, or a word."""
    text = text.strip().strip('"')
    if text in ("true", "false"):
        return ("word", "on" if text == "true" else "off")
    if "GetIdealThreadCount" in text:
        return ("word", "the processors")
    chrono = re.fullmatch(r"std::chrono::(\w+)\((.*)\)", text, re.S)
    if chrono:
        return ("ms", TO_MS[chrono.group(1)] * evaluate(chrono.group(2), others))
    if kind.startswith("std::chrono::"):
        return ("ms", TO_MS[kind.rpartition("::")[2]] * evaluate(text, others))
    for suffix, unit, factor in (("Ms", "ms", 1), ("Seconds", "ms", 1000), ("Bytes", "bytes", 1)):
        if name.endswith(suffix):
            return (unit, factor * evaluate(text, others))
    return ("", evaluate(text, others))


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def numbers_of(path, text):
    """The constants of a file: key to unit and number, or to None if not evaluated."""
    text = without_comments(text)
    found = [(kind, name, next(part for part in values if part is not None))
             for kind, name, *values in (match.groups() for match in CONSTANT.finditer(text))]
    others = {name: value for _, name, value in found}
    for struct, body in STRUCT.findall(text):
        found += [(kind, f"{struct}::{name}", value) for kind, name, value in MEMBER.findall(body)]
    if path.endswith(".h"):
        found += [(kind, f"{function}({name})", value)
                  for function, kind, name, value in DEFAULT.findall(text)]
    for kind, name, value in found:
        is_digits = re.fullmatch(r'\s*"\d+"\s*', value)
        if TEXTS.search(kind) and not is_digits:
            continue
        try:
            yield f"{path} {name}", value_of(name, kind.strip(), value, others)
        except Unknown:
            yield f"{path} {name}", None


def sources(root):
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                yield str(path.relative_to(root)), path.read_text()


def value_in(cell):
    match = re.match(r"(off|on|the processors)\b|(\d+)(?: (ms|s|days|bytes)\b)?", cell)
    if not match:
        return None
    if match.group(1):
        return ("word", match.group(1))
    unit, factor = UNITS.get(match.group(3), ("", 1))
    return (unit, int(match.group(2)) * factor)


def same(documented, coded):
    """Constants need not have their unit in the name; where both have one it is the same."""
    if documented is None or coded is None:
        return False
    return documented[1] == coded[1] and (documented[0] == coded[0] or coded[0] == "")


def key_of(name, argument, file):
    """The key in `numbers_of` of a name of the page such as kit::Server::start(limit)."""
    parts = name.split("::")
    if argument:
        return f"{file} {parts[-1]}({argument})"
    if len(parts) > 1 and parts[-2] in (
            "Parameters", "Options", "ServerOptions", "WebSocketOptions", "EngineOptions", "FormLimits",
            "EventStreamOptions", "CompressionOptions", "TlsOptions", "RateLimitOptions", "CorsOptions"):
        return f"{file} {'::'.join(parts[-2:])}"
    return f"{file} {parts[-1]}"


def complaints(page, files, not_for_users):
    numbers = dict(entry for path, text in files for entry in numbers_of(path, text))
    shown = set()
    for line in page.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split(" | ")]
        if not line.startswith("|") or len(cells) != 4:
            continue
        for match in ROW.finditer(cells[2]):
            key = key_of(*match.groups())
            shown.add(key)
            if key not in numbers:
                yield f"{key} is in the table and not in the code"
            elif not same(value_in(cells[1]), numbers[key]):
                yield f"{key} is {numbers[key]} in the code and '{cells[1]}' in the table"
            if key in not_for_users:
                yield f"{key} is in the table and among those not for users"
    for key in numbers:
        if key not in shown and key not in not_for_users:
            yield f"{key} is not in the table"
    for key in not_for_users:
        if key not in numbers:
            yield f"{key} is said not to be for users, and there is no such number"
    if len(shown) < 50:
        yield f"the table has only {len(shown)} rows of ours"


def try_broken(page, files):
    """Each change of code or page must be noticed."""
    files = dict(files)

    def with_change(path, old, new):
        assert old in files[path], f"{path} has no '{old}'"
        return [*{**files, path: files[path].replace(old, new)}.items()]

    silent = []
    for path, old, new in (
            ("src/request/RequestTarget.cpp", "kTargetLimitBytes = 4096", "kTargetLimitBytes = 4097"),
            ("src/streaming/ChunkPool.h", "kMaxBytes = 4 << 20", "kMaxBytes = 4 << 21"),
            ("src/server/ResponseQueue.cpp", "0x1fffffff", "0x1ffffffe"),
            ("kit/websocket/Engine.cpp", "kCallbackGrace = std::chrono::seconds(1)",
             "kCallbackGrace = std::chrono::seconds(2)"),
            ("kit/websocket/Frame.h", "kMaxControlBytes = 125", "kMaxControlBytes = 126"),
            ("kit/src/Exchange.cpp", "kMaxBodyOfRefusalBytes = 65536", "kMaxBodyOfRefusalBytes = 65537"),
            ("kit/include/Wendrel/kit/DeferredResponse.h", "kDefaultQueueBytes = 65536",
             "kDefaultQueueBytes = 65537"),
            ("kit/include/Wendrel/kit/Server.h", "stopTimeout{5000}", "stopTimeout{5001}"),
            ("kit/include/Wendrel/kit/Server.h", "workers = 16", "workers = 17"),
            ("include/Wendrel/HttpServer.h", "listenOnAllInterfaces = false",
             "listenOnAllInterfaces = true"),
            ("include/Wendrel/HttpServer.h", "uint16_t port = 8181;",
             "uint16_t port = 8181;\n        uint32_t mostUploads = 5;"),
            ("kit/src/Exchange.cpp", "constexpr int kNoContent",
             "constexpr double kNewFactor = 2;\nconstexpr int kNoContent"),
            ("kit/src/RouteTable.h", "static constexpr size_t kMethods = 10;", "")):
        if not list(complaints(page, with_change(path, old, new), NOT_FOR_USERS)):
            silent.append(f"not detected: '{new}' instead of '{old}' in {path}")
    for old, new in (("4096 bytes", "4097 bytes"), ("1000 ms", "1000 bytes"),
                     ("fixed: [`kBlockBytes`]", "fixed: [`kBlockBites`]")):
        if not list(complaints(page.replace(old, new), files.items(), NOT_FOR_USERS)):
            silent.append(f"not detected: '{new}' instead of '{old}' in the page")
    return silent


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / PAGE).read_text()
    files = list(sources(root))
    wrong = list(complaints(page, files, NOT_FOR_USERS))
    if sys.argv[2:] == ["--broken"]:
        wrong += try_broken(page, files)
    print("\n".join(wrong) or "the table and the code agree")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
