// The faces of an exchange: request, response, deferred response and its stream.

#include <Wendrel/kit/Request.h>

#include "Exchange.h"
#include "FileResponse.h"
#include "FormReader.h"
#include "ServerCore.h"
#include "StreamQueue.h"
#include "Text.h"

#include <qvSystem/Rollback.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

using By = Exchange::By;

const std::string kNothing;
const std::list<std::string> kNoValues;

const std::string& firstOf(const std::list<std::string>* values)
{
    return values ? values->front() : kNothing;
}

void awaitMemory(Exchange& exchange, const std::shared_ptr<StreamQueue>& queue)
{
    if (!queue->startWaitingForMemory())
        return;
    Rollback waiting([&queue] { queue->cancelWaitingForMemory(); });
    exchange.core().deadlines().awaitMemory(queue);
    waiting.commit();
}

}  // namespace

Responder::Responder(Responder&& other) noexcept
    : mHead(std::move(other.mHead)), mExchange(std::exchange(other.mExchange, nullptr))
{}

Responder& Responder::operator=(Responder&& other) noexcept
{
    mHead = std::move(other.mHead);
    mExchange = std::exchange(other.mExchange, nullptr);
    return *this;
}

Exchange* Responder::responding() const
{
    if (mExchange && mIsHandedOn) {
        mExchange->log("a response after defer was discarded");
        return nullptr;
    }
    return mExchange;
}

bool Responder::reply(std::string body, const ContentType& type)
{
    return reply(200, std::move(body), type);
}

bool Responder::reply(int status, std::string body, const ContentType& type)
{
    Exchange* const exchange = responding();
    if (!exchange)
        return false;
    auto held = exchange->holdReply(std::move(body));
    return held && replyText(status, std::move(held), &type);
}

bool Responder::reply(int status)
{
    return replyText(status, nullptr, nullptr);
}

bool Responder::reply(std::shared_ptr<const std::string> body, const ContentType& type)
{
    return replyText(200, std::move(body), &type);
}

bool Responder::replyText(int status, std::shared_ptr<const std::string> body,
                          const ContentType* type)
{
    Exchange* const exchange = responding();
    if (!exchange)
        return false;
    Exchange::Response response;
    response.head = std::move(mHead);
    response.status = status;
    response.type = type;
    response.source = BodySource::fromString(std::move(body));
    return exchange->respond(By::Application, response);
}

bool Responder::replyError(int status, const std::string& message)
{
    Exchange* const exchange = responding();
    return exchange && exchange->respondError(By::Application, std::move(mHead), status, message);
}

bool Responder::replySource(std::unique_ptr<BodySource> source, const ContentType& type)
{
    return replySource(200, std::move(source), type);
}

bool Responder::replySource(int status, std::unique_ptr<BodySource> source, const ContentType& type)
{
    Exchange* const exchange = responding();
    if (!exchange)
        return false;
    Exchange::Response response;
    response.head = std::move(mHead);
    response.status = status;
    response.type = &type;
    response.source = std::move(source);
    return exchange->respond(By::Application, response);
}

bool Responder::replyFile(const std::string& path, const FileOptions& options)
{
    Exchange* const exchange = responding();
    return exchange &&
           respondFile(*exchange, std::move(mHead), openFile(path),
                       std::string_view(path).substr(path.rfind('/') + 1), options,
                       [&](const char* extension) { return openFile(path + extension); });
}

bool Responder::replyOpenFile(int descriptor, const std::string& name, const FileOptions& options)
{
    FileDescriptor file(descriptor);
    Exchange* const exchange = responding();
    return exchange && respondFile(*exchange, std::move(mHead), std::move(file), name, options);
}

bool Responder::isOpen() const
{
    return mExchange && !mIsHandedOn && mExchange->isOpen();
}

std::string Responder::route() const
{
    return mExchange ? mExchange->routeName() : std::string();
}

Request::Request(Exchange& exchange) : Responder(&exchange) {}

Method Request::method() const
{
    return static_cast<Method>(mExchange->getRequestType());
}

const std::string& Request::path() const
{
    return mExchange->getUrl().path();
}

const std::string& Request::target() const
{
    return mExchange->getOriginalFullUrl();
}

Parameter Request::pathParameter(std::string_view name) const
{
    return {Parameter::Kind::Path, name, mExchange->pathParameter(name)};
}

Parameter Request::query(const std::string& name) const
{
    return {Parameter::Kind::Query, name, firstOf(mExchange->getQueryParameter(name.c_str()))};
}

const std::list<std::string>& Request::queryValues(const std::string& name) const
{
    const std::list<std::string>* const values = mExchange->getQueryParameter(name.c_str());
    return values ? *values : kNoValues;
}

Parameter Request::header(std::string_view name) const
{
    const std::string* const line = mExchange->getHeaders().findLine(toLower(std::string(name)));
    return {Parameter::Kind::Header, name, line ? *line : kNothing};
}

Parameter Request::cookie(const std::string& name) const
{
    return {Parameter::Kind::Cookie, name, firstOf(mExchange->getCookie(name.c_str()))};
}

const IpAddress& Request::clientAddress() const
{
    return mExchange->getClientAddress();
}

bool Request::isSecure() const
{
    return mExchange->isSecure();
}

const TlsConnection* Request::tls() const
{
    return mExchange->getTls();
}

int64_t Request::contentLength() const
{
    return mExchange->declaredBodyBytes();
}

const std::string& Request::body()
{
    return mExchange->body();
}

const Form& Request::form(const FormLimits& limits)
{
    return mExchange->form(header("Content-Type"), limits);
}

void Request::readParts(const std::function<void(Part&)>& take, const FormLimits& limits)
{
    const auto source = [this](char* buffer, size_t size) { return readBody(buffer, size); };
    FormReader::readParts(header("Content-Type"), source, take, limits);
}

size_t Request::readBody(char* buffer, size_t size)
{
    return mExchange->readBody(buffer, size);
}

std::string Request::readAll(uint64_t limitBytes)
{
    return mExchange->readAll(limitBytes);
}

bool Request::startStream(const ContentType& type, int status)
{
    Exchange* const exchange = responding();
    return exchange && exchange->startStream(std::move(mHead), type, status);
}

bool Request::write(std::string_view data)
{
    return mExchange->write(data);
}

bool Request::flush()
{
    return mExchange->flush();
}

bool Request::finish()
{
    return mExchange->finish();
}

void Request::attachValue(const std::type_info& type, std::shared_ptr<const void> value)
{
    mExchange->attach(type, std::move(value));
}

const void* Request::attachedValue(const std::type_info& type) const
{
    return mExchange->findAttached(type);
}

void Request::refuseMissing(const std::type_info& type)
{
    throw std::logic_error(std::string("no hook has attached a value of the type ") + type.name());
}

DeferredResponse Request::defer()
{
    if (mIsHandedOn || mExchange->hasResponse())
        throw std::logic_error("defer after a response");
    mIsHandedOn = true;
    mExchange->noteDeferred();
    mExchange->retain();
    DeferredResponse later(mExchange);
    later.mHead = std::move(mHead);
    return later;
}

DeferredResponse& DeferredResponse::operator=(DeferredResponse&& other) noexcept
{
    if (this != &other) {
        close();
        Responder::operator=(std::move(other));
    }
    return *this;
}

DeferredResponse::~DeferredResponse()
{
    close();
}

void DeferredResponse::close()
{
    if (!mExchange)
        return;
    Exchange* const exchange = std::exchange(mExchange, nullptr);
    exchange->endDeferred();
    exchange->release();
}

DeferredStream DeferredResponse::startStream(const ContentType& type, int status, size_t queueBytes)
{
    if (!mExchange)
        return DeferredStream();
    auto queue =
        std::make_shared<StreamQueue>(mExchange->routeName(), queueBytes,
                                      mExchange->hasNoBody(status), MemoryAccount::of(*mExchange));
    Exchange::Response response;
    response.head = std::move(mHead);
    response.status = status;
    response.type = &type;
    response.source = StreamQueue::makeSource(queue, *mExchange);
    response.isStream = true;
    if (!mExchange->respond(By::Application, response)) {
        // The end of a source that is not sent tells nothing about the response.
        if (response.source)
            queue->disown();
        return DeferredStream();
    }
    mExchange->retain();
    return DeferredStream(mExchange, std::move(queue));
}

void DeferredResponse::onGone(std::function<void()> callback)
{
    if (mExchange)
        mExchange->setGoneCallback(std::move(callback));
}

void DeferredResponse::onBody(std::function<void(std::string_view)> onPiece,
                              std::function<void()> onComplete)
{
    if (isOpen())
        mExchange->deliverBody(std::move(onPiece), std::move(onComplete));
}

void DeferredResponse::onParts(std::function<PartTaker(const PartHead&)> onPart,
                               std::function<void()> onComplete, const FormLimits& limits)
{
    if (!isOpen())
        return;
    const std::string* const found = mExchange->getHeaders().findLine("content-type");
    const auto feed =
        std::make_shared<PartFeed>(found ? *found : std::string(), std::move(onPart), limits);
    mExchange->deliverBody([feed](std::string_view piece) { feed->give(piece); },
                           [feed, onComplete = std::move(onComplete)] {
                               feed->complete();
                               if (onComplete)
                                   onComplete();
                           });
}

void DeferredResponse::setDeadline(std::chrono::milliseconds limit, int status)
{
    if (isOpen())
        mExchange->setDeadline(limit, status, DeadlineQueue::By::Application);
}

DeferredStream::DeferredStream() : mExchange(nullptr) {}

DeferredStream::DeferredStream(Exchange* exchange, std::shared_ptr<StreamQueue> queue)
    : mExchange(exchange), mQueue(std::move(queue))
{}

DeferredStream::DeferredStream(DeferredStream&& other) noexcept
    : mExchange(std::exchange(other.mExchange, nullptr)), mQueue(std::move(other.mQueue))
{}

DeferredStream& DeferredStream::operator=(DeferredStream&& other) noexcept
{
    if (this != &other) {
        close();
        mExchange = std::exchange(other.mExchange, nullptr);
        mQueue = std::move(other.mQueue);
    }
    return *this;
}

DeferredStream::~DeferredStream()
{
    close();
}

void DeferredStream::close()
{
    if (!mExchange)
        return;
    Exchange* const exchange = std::exchange(mExchange, nullptr);
    if (!mQueue->isFinished())
        exchange->dropGoneCallback();
    // Read before: the failure of the body ends the request.
    const bool wasGone = exchange->isGone();
    if (mQueue->fail() && !wasGone)
        exchange->log("the stream was destroyed before finish");
    mQueue.reset();
    exchange->release();
}

StreamWrite DeferredStream::write(std::string_view data)
{
    if (!mExchange || mExchange->isGone())
        return StreamWrite::Gone;
    const StreamWrite outcome = mQueue->write(data);
    if (outcome == StreamWrite::Full)
        awaitMemory(*mExchange, mQueue);
    return outcome;
}

void DeferredStream::onWritable(std::function<void()> callback)
{
    if (!mExchange)
        return;
    // The callback may destroy this object.
    Exchange& exchange = *mExchange;
    const std::shared_ptr<StreamQueue> queue = mQueue;
    exchange.retain();
    const Rollback used([&exchange] { exchange.release(); });
    queue->onWritable(std::move(callback));
    awaitMemory(exchange, queue);
}

void DeferredStream::onGone(std::function<void()> callback)
{
    if (mExchange)
        mExchange->setGoneCallback(std::move(callback));
}

void DeferredStream::finish()
{
    if (mExchange)
        mQueue->finish();
}

size_t DeferredStream::queuedBytes() const
{
    return mExchange ? mQueue->queuedBytes() : 0;
}

bool DeferredStream::isGone() const
{
    return !mExchange || mExchange->isGone() || mQueue->isClosed();
}

}  // namespace qv::kit
