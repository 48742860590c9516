#include <vesk/Vesk.h>
#include <vesk/VeskProtocol.h>

#include <iostream>

struct Host : vesk::VeskCallback {
    void receive(uint32_t client, uint32_t, bool,
                 std::shared_ptr<vesk::VeskFrame> const& frame) override {
        std::cout << "client " << client
                  << " got: " << std::string(frame->data.begin(), frame->data.end()) << "\n";
    }
    void sendToChannel(std::vector<uint8_t>) override {}  // bytes for your channel
    void notifyTopicChanged(bool, std::string) override {}
    void notifyBusinessChanged(bool, std::string, std::string) override {}
};

int main() {
    auto* const vesk = vesk::Vesk::getInstance();
    vesk->init(new Host);
    vesk->createTopic("test", false);
    auto* const sessions = vesk->getSessionManager();
    int const role = vesk::VeskSessionManager::PROVIDER;
    auto const provider = sessions->createSession(7, role, "test", "test", false);
    auto const request = vesk::VeskFrame::obtainFrame(true);
    request->topicId = 2;                    // "test" in the catalogue
    request->businessId = 1;                 // and its one business
    request->msgType = vesk::REQUEST;        // to the business's provider
    request->msgId = request->serialNumber;  // no other that awaits acknowledgement has it
    request->data = {'h', 'e', 'l', 'l', 'o'};
    sessions->getSession(uint16_t(provider))->send(true, request, 1);  // true: to this process
}
