#include "Tappers.h"

#include <algorithm>

#include <asio/post.hpp>

#include "WallClock.h"

namespace vesk::hostkit {

namespace {

// So much may wait for one tapper. It is little beside what the host keeps for its clients.
constexpr size_t MAX_WAITING = size_t{512} * 1024;

using Difference = client::Bytes::difference_type;

}  // namespace

Tappers::~Tappers() {
    if (mTap) mTap->end();
}

std::string Tappers::whyNot(ClientConnection& client) const {
    if (!mTap) return "this host cannot be tapped";
    if (mTappers.count(client.id()) > 0) return "this client taps already";
    return client.isTrusted() ? "" : "only the user of this host, and root, may tap it";
}

void Tappers::add(std::shared_ptr<ClientConnection> const& client) {
    if (mTappers.empty()) {
        mTap->begin([this] { asio::post(mIo, [this] { pass(); }); });
    } else {
        pass();  // what was before is not for the new one
    }
    mTappers[client->id()].client = client;
}

void Tappers::remove(ClientConnection& client) {
    if (mTap) pass();
    auto const found = mTappers.find(client.id());
    client::TappedMessage end;
    if (found != mTappers.end()) {
        passSkipped(found->second, microsSince1970());
        end.missed = found->second.missed;
    }
    left(client.id());
    client.send(end.encode());
}

void Tappers::left(uint32_t id) {
    if (mTappers.erase(id) > 0 && mTappers.empty()) mTap->end();
}

void Tappers::pass() {
    Tap::Batch const batch = mTap->take();
    for (auto& [id, tapper] : mTappers)
        passTo(tapper, batch);
}

void Tappers::passTo(Tapper& tapper, Tap::Batch const& batch) {
    for (Tap::Copy const& copy : batch.copies) {
        tapper.skipped += copy.skipped;
        passSkipped(tapper, copy.micros);
        if (copy.bytes.empty()) continue;
        if (tapper.client->backlog() + copy.bytes.size() > MAX_WAITING) {
            ++tapper.missed;
            continue;
        }
        for (size_t at = 0; at < copy.bytes.size(); at += client::TappedMessage::MAX_BYTES) {
            size_t const end = std::min(copy.bytes.size(), at + client::TappedMessage::MAX_BYTES);
            client::TappedMessage const tapped{copy.micros,
                                               copy.direction == FrameText::Direction::OUT,
                                               tapper.missed,
                                               {copy.bytes.begin() + static_cast<Difference>(at),
                                                copy.bytes.begin() + static_cast<Difference>(end)}};
            tapper.client->send(tapped.encode());
        }
    }
    tapper.missed += batch.missed;
    tapper.skipped += batch.skipped;
}

void Tappers::passSkipped(Tapper& tapper, uint64_t micros) {
    if (tapper.skipped == 0 || tapper.client->backlog() > MAX_WAITING) return;
    tapper.client->send(client::SkippedMessage{micros, tapper.skipped}.encode());
    tapper.skipped = 0;
}

}  // namespace vesk::hostkit
