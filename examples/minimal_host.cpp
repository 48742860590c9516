#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>

#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

using namespace vesk;

std::shared_ptr<VeskFrame> message(uint8_t type, uint16_t session, std::string const& text) {
    auto frame = VeskFrame::obtainFrame(true);
    frame->topicId = 2;     // "test" in the catalogue
    frame->businessId = 1;  // and its one business
    frame->msgType = type;
    frame->reply = session;
    frame->msgId = frame->serialNumber;  // a later frame with the same id would supersede it
    frame->data.assign(text.begin(), text.end());
    return frame;
}

struct Host : VeskCallback {
    explicit Host(int channel) : mChannel(channel) {}
    void sendToChannel(std::vector<uint8_t> bytes) override {
        send(mChannel, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void receive(uint32_t, uint32_t id, bool, std::shared_ptr<VeskFrame> const& frame) override {
        std::string const text(frame->data.begin(), frame->data.end());
        if (frame->msgType == REPLY) std::cout << "reply: " << text << "\n";
        auto const me = Vesk::getInstance()->getSessionManager()->getSession(uint16_t(id));
        if (frame->msgType == REQUEST && me) me->send(false, message(REPLY, frame->reply, text), 1);
    }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}
    int mChannel;
};

int main() {
    int ends[2];  // a channel that keeps frames apart, so that no reader need cut them
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) return 1;
    bool const asks = fork() != 0;  // the parent asks, the child answers
    close(ends[asks]);
    Vesk* const vesk = Vesk::getInstance();
    vesk->init(new Host(ends[!asks]));
    vesk->createTopic("test", false);
    auto* const sessions = vesk->getSessionManager();
    int const role = asks ? VeskSessionManager::CONSUMER : VeskSessionManager::PROVIDER;
    auto const id = uint16_t(sessions->createSession(1, role, "test", "test", false));
    if (asks) sessions->getSession(id)->send(false, message(REQUEST, id, "hello"), 1);
    std::vector<uint8_t> bytes(12 + 65535);
    for (ssize_t n = 0; (n = recv(ends[!asks], bytes.data(), bytes.size(), 0)) > 0;) {
        auto frame = VeskFrame::obtainFrame(false);
        frame->unSerialze({bytes.begin(), bytes.begin() + n});
        vesk->getQueue()->receiveFromChannel(frame);
        if (asks && frame->msgType == REPLY) break;  // the other side sees the channel close
    }
}
