#include <vesk/Vesk.h>

#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

using namespace vesk;

std::shared_ptr<VeskFrame> message(uint8_t type, uint16_t reply, std::vector<uint8_t> data) {
    auto frame = VeskFrame::obtainFrame(true);  // with the next serial number
    frame->topicId = 2;                         // "test" in the catalogue
    frame->businessId = 1;                      // its only business, "test"
    frame->msgType = type;                      // 2: to the provider. 3: to the session `reply`
    frame->reply = reply;
    frame->data = std::move(data);
    return frame;
}

struct Host : VeskCallback {
    explicit Host(int channel) : mChannel(channel) {}

    void sendToChannel(std::vector<uint8_t> bytes) override {
        send(mChannel, bytes.data(), bytes.size(), 0);
    }
    void receive(uint32_t, uint32_t id, bool, std::shared_ptr<VeskFrame> const& frame) override {
        if (frame->msgType == 3) {
            std::cout << "reply: " << std::string(frame->data.begin(), frame->data.end()) << "\n";
        } else if (auto provider = Vesk::getInstance()->getSessionManager()->getSession(
                           static_cast<uint16_t>(id))) {
            provider->send(false, message(3, frame->reply, frame->data), 1);
        }
    }
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}

    int mChannel;
};

int main() {
    int ends[2];  // the byte channel; this kind keeps frames apart, so that no reader need cut them
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) return 1;
    bool const asks = fork() != 0;  // the parent asks, the child answers
    close(ends[asks ? 1 : 0]);
    int const channel = ends[asks ? 0 : 1];

    Vesk* const vesk = Vesk::getInstance();
    vesk->init(new Host(channel));
    vesk->createTopic("test", false);
    auto* const sessions = vesk->getSessionManager();
    auto const id = static_cast<uint16_t>(
            sessions->createSession(1 /* client */, asks ? 1 : 2, "test", "test", false));
    if (asks) sessions->getSession(id)->send(false, message(2, id, {'h', 'e', 'l', 'l', 'o'}), 1);

    std::vector<uint8_t> bytes(12 + 65535);
    for (ssize_t n = 0; (n = recv(channel, bytes.data(), bytes.size(), 0)) > 0;) {
        auto frame = VeskFrame::obtainFrame(false);
        frame->unSerialze({bytes.begin(), bytes.begin() + n});
        vesk->getQueue()->receiveFromChannel(frame);
        if (asks && frame->msgType == 3) break;  // answered; the other side sees the channel close
    }
}
