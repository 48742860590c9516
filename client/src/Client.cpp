#include <vesk/client/Client.h>

#include <utility>

#include "ClientImpl.h"

namespace vesk::client {

Client::Client(std::string const& path, Options options)
    : mImpl(std::make_shared<Impl>(path, std::move(options))) {
    mImpl->start();
}

Client::~Client() {
    mImpl->stop();
}

uint16_t Client::join(BusinessName const& business) {
    return mImpl->join(Impl::Role::CONSUMER, business, nullptr);
}

uint16_t Client::serve(BusinessName const& business, Handler handler) {
    return mImpl->join(Impl::Role::PROVIDER, business, std::move(handler));
}

Client::Sent Client::call(Bytes payload, std::chrono::milliseconds timeout, Done done) {
    return mImpl->call(payload, timeout, done);
}

std::future<Client::Reply> Client::call(Bytes payload, std::chrono::milliseconds timeout) {
    auto const promise = std::make_shared<std::promise<Reply>>();
    Done done = [promise](Reply reply) { promise->set_value(std::move(reply)); };
    if (mImpl->call(payload, timeout, done) != Sent::YES) promise->set_value({});
    return promise->get_future();
}

void Client::watch(Watcher watcher) {
    mImpl->watch(std::move(watcher));
}

Counters Client::query() {
    return mImpl->query();
}

std::string Client::status(StatusFormat format) {
    return mImpl->status(format);
}

void Client::status(StatusFormat format,
                    std::function<void(std::optional<std::string> const& text)> done) {
    mImpl->status(format, std::move(done));
}

void Client::tap(std::function<void(TappedMessage const& tapped)> onFrame,
                 std::function<void(SkippedMessage const& skipped)> onSkipped) {
    mImpl->tap({std::move(onFrame), std::move(onSkipped)});
}

uint64_t Client::untap() {
    return mImpl->untap();
}

void Client::query(std::function<void(std::optional<Counters> const& counters)> done) {
    mImpl->query(std::move(done));
}

void Client::post(std::function<void()> task) {
    mImpl->post(std::move(task));
}

bool Client::connected() const {
    return mImpl->connected();
}

}  // namespace vesk::client
