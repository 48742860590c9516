// A host whose channel is a stream of bytes, as a serial line or a socket is. It cuts the stream
// into frames, writes whole ones, does not ask for more than the queue takes, and tells the library
// when the channel is gone. Both sides run here, the answering one in a child process; with a path
// it asks the host that listens there, such as `vesk host --channel unix:PATH --listen`.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include <vesk/Vesk.h>

namespace {

using namespace vesk;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t TYPE_REQUEST = 2, TYPE_REPLY = 3;
constexpr uint16_t REQUESTS = 2000;
constexpr int WINDOW = 200;  // far below what the queue refuses at

/** The channel: whole frames in, whole frames out. */
class Stream {
public:
    explicit Stream(int fd) : mFd(fd) {}
    ~Stream() { close(mFd); }

    /** The library calls this on one thread only, so that frames do not mix. */
    void write(Bytes const& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            ssize_t const n = send(mFd, &bytes[done], bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;  // the reader sees the end as well
            done += static_cast<size_t>(n);
        }
    }

    /** The next frame; empty at the end of the stream. */
    Bytes read() {
        Bytes frame(VeskFrame::FRAME_HEAD_SIZE);
        do {
            if (!readAll(frame.data(), 1)) return {};
        } while (frame[0] != VeskFrame::MAGIC_NUMBER);
        if (!readAll(&frame[1], frame.size() - 1)) return {};
        size_t const length = frame[VeskFrame::DATASIZE_INDEX] |
                              size_t{frame[VeskFrame::DATASIZE_INDEX + 1]} << 8;
        frame.resize(frame.size() + length);
        return readAll(&frame[VeskFrame::DATA_INDEX - 1] + 1, length) ? frame : Bytes{};
    }

    void end() { shutdown(mFd, SHUT_RDWR); }

private:
    bool readAll(uint8_t* to, size_t size) {
        return size == 0 || recv(mFd, to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    int const mFd;
};

std::shared_ptr<VeskFrame> message(uint8_t type, uint16_t session, uint16_t id, Bytes data) {
    auto frame = VeskFrame::obtainFrame(true);
    frame->topicId = 2;     // "test" in the catalogue
    frame->businessId = 1;  // and its one business
    frame->msgType = type;
    frame->reply = session;
    frame->msgId = id;
    frame->data = std::move(data);
    return frame;
}

class Host : public VeskCallback {
public:
    explicit Host(int channel) : mChannel(channel) {}

    void sendToChannel(Bytes bytes) override { mChannel.write(bytes); }

    void receive(uint32_t, uint32_t id, bool, std::shared_ptr<VeskFrame> const& frame) override {
        if (frame->msgType == TYPE_REQUEST) {
            auto const me = Vesk::getInstance()->getSessionManager()->getSession(uint16_t(id));
            if (!me) return;  // the provider has been removed
            me->send(false, message(TYPE_REPLY, frame->reply, frame->msgId, frame->data), 1);
        } else {
            std::lock_guard<std::mutex> const lock(mMutex);
            ++mReplies;
            mChanged.notify_one();
        }
    }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

    /** Reads until the channel ends. */
    void serve() {
        for (Bytes bytes; !(bytes = mChannel.read()).empty();) {
            auto const frame = VeskFrame::obtainFrame(false);
            if (frame->unSerialze(bytes))
                Vesk::getInstance()->getQueue()->receiveFromChannel(frame);
        }
        Vesk::getInstance()->onChannelAvailable(false);  // drops what cannot leave any more
        std::lock_guard<std::mutex> const lock(mMutex);
        mEnded = true;
        mChanged.notify_one();
    }

    /** Sends all requests, never more than WINDOW ahead of the replies; returns how many came. */
    int ask(uint16_t session) {
        auto const me = Vesk::getInstance()->getSessionManager()->getSession(session);
        for (uint16_t id = 1; id <= REQUESTS && awaitReplies(id - WINDOW); ++id)
            me->send(false, message(TYPE_REQUEST, session, id, Bytes(id, 'x')), 1);
        awaitReplies(REQUESTS);
        mChannel.end();
        return mReplies;
    }

private:
    bool awaitReplies(int count) {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [&] { return mReplies >= count || mEnded; });
        return !mEnded;
    }

    Stream mChannel;
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mReplies = 0;
    bool mEnded = false;
};

int run(int channel, int role) {
    android::sp<Host> const host = new Host(channel);
    Vesk* const vesk = Vesk::getInstance();
    vesk->init(host);
    vesk->createTopic("test", false);
    int const session = vesk->getSessionManager()->createSession(1, role, "test", "test", false);
    if (role == VeskSessionManager::PROVIDER) {
        host->serve();
        return 0;
    }

    std::thread reader([&] { host->serve(); });
    int const replies = host->ask(static_cast<uint16_t>(session));
    reader.join();
    std::cout << replies << " of " << REQUESTS << " requests answered\n";
    return replies == REQUESTS ? 0 : 1;
}

int connectTo(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
    std::cerr << "cannot connect to " << path << ": " << std::strerror(errno) << "\n";
    std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) return run(connectTo(argv[1]), VeskSessionManager::CONSUMER);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 1;
    bool const asks = fork() != 0;  // before the library starts its thread
    close(ends[asks ? 1 : 0]);
    return run(ends[asks ? 0 : 1],
               asks ? VeskSessionManager::CONSUMER : VeskSessionManager::PROVIDER);
}
