#include "FlowControl.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <asio/post.hpp>

namespace vesk::hostkit {

namespace {

using Milliseconds = std::chrono::milliseconds;

// How soon to look whether time has brought room, and how soon again at the earliest.
constexpr Milliseconds FIRST_LOOK{100};
constexpr Milliseconds NEXT_LOOK{10};

// What is set aside for a message that has come in part, whose length may not be known.
constexpr size_t PART = client::MessageReader::MAX_SIZE;

}  // namespace

FlowControl::FlowControl(asio::io_context& io, FlowLimits const& limits, Services const& services,
                         ClientTable& clients, size_t const& backlog)
    : mIo(io),
      mLimits(limits),
      mServices(services),
      mClients(clients),
      mBacklog(backlog),
      mTimer(io) {}

void FlowControl::joined(Client& client) {
    VeskSession const& session = *client.session;
    // Both are single bytes wherever a frame carries them.
    client.business =
            &mBusinesses[static_cast<uint16_t>(session.topicId() << 8 | session.businessId())];
    if (client.consumes()) {
        client.unanswered.emplace(client.business->unanswered, mLimits);
    } else {
        client.business->providers.push_back(client.connection->id());
    }
}

void FlowControl::left(Client& client) {
    releasePart(client);
    if (ClientLine* const line = lineOf(client, client.obstacle)) {
        auto const place = std::find(line->begin(), line->end(), client.connection->id());
        if (place != line->end()) line->erase(place);
    }
    if (client.congested) --client.business->congested;
    client.unanswered.reset();
    if (client.provides()) {
        auto& providers = client.business->providers;
        providers.erase(std::remove(providers.begin(), providers.end(), client.connection->id()),
                        providers.end());
    }
    updateShortage();
    updateHold();
    resumeSoon();
}

bool FlowControl::admits(Client& client, bool isData) {
    Obstacle found = obstacle(client, isData);
    // Who comes now stands behind those who wait.
    bool const mayOvertake = mResuming || client.part > 0 || !isData || !client.joined();
    if (found == Obstacle::NONE && !mayOvertake) {
        if (!client.local && !mChannelLine.empty()) found = Obstacle::CHANNEL;
        if (client.consumes() && !client.business->line.empty()) found = Obstacle::BUSINESS;
    }
    return found == Obstacle::NONE || pause(client, found);
}

bool FlowControl::admitsPart(Client& client) {
    if (!client.joined()) return true;  // its messages are short
    if (!admits(client, true)) return false;
    if ((mParts[client.local] + 1) * PART > mLimits.parts) return pause(client, Obstacle::PARTS);
    ++mParts[client.local];
    client.part = PART;
    // The message will be taken, so its business must have room for it until then.
    if (client.consumes()) client.business->unanswered += PART;
    return true;
}

void FlowControl::releasePart(Client& client) {
    if (client.part == 0) return;
    --mParts[client.local];
    if (client.consumes()) client.business->unanswered -= client.part;
    client.part = 0;
    if (!mPartLines[client.local].empty()) resumeSoon();
}

std::shared_ptr<VeskFrame> FlowControl::handedOver(Client& client,
                                                   std::shared_ptr<VeskFrame> frame) {
    if (client.consumes()) client.unanswered->asked(frame->msgId, frame->data.size());
    return client.local ? frame : mFrames.count(std::move(frame));
}

void FlowControl::answered(Client& client, VeskFrame const& reply) {
    if (!client.unanswered) return;
    client.unanswered->answered(reply.msgId, reply.data.size());
    if (client.obstacle == Obstacle::REPLIES) mDue.push_back(client.connection->id());
    if (!mDue.empty() || !client.business->line.empty()) resumeSoon();
}

Obstacle FlowControl::obstacle(Client const& client, bool isData) const {
    size_t const mark =
            client.obstacle == Obstacle::BACKLOG ? mLimits.consumerLow : mLimits.consumerHigh;
    // A provider is read from whatever waits for it, because its replies are what others wait for.
    if (!client.provides() && client.connection->backlog() > mark) return Obstacle::BACKLOG;
    if (!isData || !client.joined()) return Obstacle::NONE;
    if (client.local && mShort) return Obstacle::SHORTAGE;
    if (!client.local && !channelTakes()) return Obstacle::CHANNEL;
    return client.consumes() && client.part == 0 ? consumerObstacle(client) : Obstacle::NONE;
}

Obstacle FlowControl::consumerObstacle(Client const& client) const {
    Business const& business = *client.business;
    if (client.unanswered->isFull(mLimits.replies)) return Obstacle::REPLIES;
    bool const providerIsSlow = client.local && business.congested > 0;
    return providerIsSlow || business.unanswered >= mLimits.business ? Obstacle::BUSINESS
                                                                     : Obstacle::NONE;
}

bool FlowControl::channelTakes() const {
    return mFrames.bytes() < mLimits.frames && mServices.obstacle() == SendGate::Obstacle::NONE;
}

ClientLine* FlowControl::lineOf(Client const& client, Obstacle obstacle) {
    switch (obstacle) {
        case Obstacle::BUSINESS:
            return &client.business->line;
        case Obstacle::CHANNEL:
            return &mChannelLine;
        case Obstacle::SHORTAGE:
            return &mShortageLine;
        case Obstacle::PARTS:
            return &mPartLines[client.local];
        default:
            return nullptr;  // it is woken by itself
    }
}

bool FlowControl::pause(Client& client, Obstacle obstacle) {
    client.obstacle = obstacle;
    if (ClientLine* const line = lineOf(client, obstacle)) line->push_back(client.connection->id());
    if (client.congested) updateHold();
    if (obstacle != Obstacle::BACKLOG && (obstacle != Obstacle::CHANNEL || timeMakesRoom()))
        lookAgain(Clock::now() + FIRST_LOOK);
    return false;
}

// What is never acknowledged is given up in the end, and nobody tells.
bool FlowControl::timeMakesRoom() const {
    SendGate::Obstacle const obstacle = mServices.obstacle();
    return obstacle != SendGate::Obstacle::CHANNEL_DOWN &&
           obstacle != SendGate::Obstacle::HIGH_WATERMARK;
}

void FlowControl::resume() {
    ClientLine due;
    due.swap(mDue);
    for (uint32_t const id : due) {
        auto const found = mClients.find(id);
        if (found == mClients.end()) continue;
        Obstacle const obstacle = found->second.obstacle;
        if (obstacle == Obstacle::BACKLOG || obstacle == Obstacle::REPLIES) resume(found->second);
    }
    for (auto& [ids, business] : mBusinesses)
        resume(business.line);
    resume(mChannelLine);
    resume(mShortageLine);
    for (size_t const local : {size_t{0}, size_t{1}}) {
        if ((mParts[local] + 1) * PART <= mLimits.parts) resume(mPartLines[local]);
    }
}

// Who has waited longest goes first, and behind the others when it has more than there is room for.
void FlowControl::resume(ClientLine& line) {
    for (size_t left = line.size(); left > 0 && !line.empty(); --left) {
        Client& client = mClients.at(line.front());
        if (lineOf(client, obstacle(client, true)) == &line) return;
        line.pop_front();
        resume(client);
    }
}

void FlowControl::resume(Client& client) {
    client.obstacle = Obstacle::NONE;
    mResuming = true;
    std::shared_ptr<ClientConnection> const connection = client.connection;
    connection->resume();
    mResuming = false;
    // Its time counts again.
    if (client.provides() && !connection->closed()) backlogChanged(client);
    if (client.congested) updateHold();
}

// In a turn of its own, because a connection may be in the middle of something.
void FlowControl::resumeSoon() {
    if (mResumePosted) return;
    mResumePosted = true;
    asio::post(mIo, [this] {
        mResumePosted = false;
        resume();
    });
}

void FlowControl::backlogChanged(Client& client) {
    size_t const bytes = client.connection->backlog();
    if (client.provides()) {
        providerChanged(client, bytes);
    } else if (client.obstacle == Obstacle::BACKLOG && bytes <= mLimits.consumerLow) {
        mDue.push_back(client.connection->id());
        resumeSoon();
    }
    updateShortage();
}

void FlowControl::providerChanged(Client& client, size_t bytes) {
    if (bytes > mLimits.providerLow) lookAgain(waitingSince(client) + mLimits.patience);
    bool const congested = bytes > (client.congested ? mLimits.providerLow : mLimits.providerHigh);
    if (congested == client.congested) return;
    client.congested = congested;
    congested ? ++client.business->congested : --client.business->congested;
    updateHold();
    if (!congested) resumeSoon();
}

void FlowControl::updateShortage() {
    bool const isShort = mBacklog > (mShort ? mLimits.shortage / 2 : mLimits.shortage);
    if (isShort == mShort) return;
    mShort = isShort;
    updateHold();
    mShort ? lookAgain(Clock::now() + FIRST_LOOK) : resumeSoon();
}

void FlowControl::updateHold() {
    bool const hold =
            mShort || std::any_of(mClients.begin(), mClients.end(), [](auto const& entry) {
                Client const& client = entry.second;
                return client.congested && !client.local && client.obstacle == Obstacle::NONE &&
                       !client.connection->closed();
            });
    if (hold != mHolding) mServices.holdChannel(hold);
    mHolding = hold;
}

void FlowControl::makeRoom(size_t size) {
    while (mBacklog + size > mLimits.allClients) {
        Client* const client = slowest();
        if (client == nullptr) return;
        client->connection->evict("it reads too slowly while memory is short");
    }
}

Client* FlowControl::slowest() {
    Client* slowest = nullptr;
    for (auto& [id, client] : mClients) {
        if (client.connection->backlog() == 0) continue;
        if (slowest == nullptr || waitingSince(client) < waitingSince(*slowest)) slowest = &client;
    }
    return slowest;
}

// The time in which the host itself keeps a provider from going on does not count.
FlowControl::Clock::time_point FlowControl::waitingSince(Client const& client) const {
    return client.provides() ? client.connection->excusedSince()
                             : client.connection->waitingSince();
}

void FlowControl::disconnectSlow(Clock::time_point now) {
    for (auto& [id, client] : mClients) {
        if (client.provides() && client.connection->backlog() > mLimits.providerLow &&
            now - waitingSince(client) >= mLimits.patience) {
            client.connection->evict("it reads too slowly");
        } else if (endsNoPart(client) &&
                   now - client.connection->partSince() >= mLimits.shortagePatience) {
            client.connection->evict("it does not end its message");
        }
    }
    while (mBacklog > mLimits.shortage) {
        Client* const client = slowest();
        if (!client || now - waitingSince(*client) < mLimits.shortagePatience) return;
        client->connection->evict("it reads too slowly while memory is short");
    }
}

// Whether others wait for the place of the message that it has begun and does not bring to its end.
bool FlowControl::endsNoPart(Client const& client) const {
    return client.part > 0 && client.connection->hasPart() && !client.connection->paused() &&
           !mPartLines[client.local].empty();
}

void FlowControl::lookAgain(Clock::time_point when) {
    if (mTimerRuns && mTimer.expiry() <= when) return;
    mTimerRuns = true;
    mTimer.expires_at(when);
    mTimer.async_wait([this](asio::error_code const& error) {
        if (!error) look();
    });
}

void FlowControl::look() {
    mTimerRuns = false;
    for (auto& [id, client] : mClients) {
        if (!client.unanswered) continue;
        client.unanswered->expire();
        if (client.obstacle == Obstacle::REPLIES) mDue.push_back(id);
    }
    disconnectSlow(Clock::now());
    resume();
    auto const now = Clock::now();
    auto next = Clock::time_point::max();
    for (auto const& [id, client] : mClients)
        next = std::min(next, dueTime(client));
    if (!mChannelLine.empty() && timeMakesRoom()) next = std::min(next, now + FIRST_LOOK);
    if (next != Clock::time_point::max()) lookAgain(std::max(next, now + NEXT_LOOK));
}

// When time alone may change something for this client, or for those who wait for it.
FlowControl::Clock::time_point FlowControl::dueTime(Client const& client) const {
    auto due = Clock::time_point::max();
    ClientConnection const& connection = *client.connection;
    if (connection.closed()) return due;
    bool const provides = client.provides();
    if (provides && connection.backlog() > mLimits.providerLow && !connection.paused())
        due = waitingSince(client) + mLimits.patience;
    if (mShort && connection.backlog() > 0)
        due = std::min(due, waitingSince(client) + mLimits.shortagePatience);
    if (endsNoPart(client)) due = std::min(due, connection.partSince() + mLimits.shortagePatience);
    bool const isWaitedFor =
            client.consumes() && !client.unanswered->empty() &&
            (client.obstacle == Obstacle::REPLIES || !client.business->line.empty());
    return isWaitedFor ? std::min(due, client.unanswered->expiry()) : due;
}

}  // namespace vesk::hostkit
