// A consumer: a local process that sends requests to a business and prints the replies. All of them
// are under way at once.

#include <vesk/client/Client.h>

#include <iostream>
#include <vector>

using namespace vesk::client;

int main(int argc, char** argv) try {
    if (argc < 4) {
        std::cerr << "usage: consumer SOCKET TOPIC/BUSINESS TEXT...\n";
        return 2;
    }
    Client client(argv[1]);
    client.join(BusinessName::parse(argv[2]));
    std::vector<std::future<Client::Reply>> replies;
    for (int i = 3; i < argc; ++i) {
        std::string const text = argv[i];
        replies.push_back(client.call({text.begin(), text.end()}, std::chrono::seconds(5)));
    }
    int status = 0;
    for (auto& coming : replies) {
        Client::Reply const reply = coming.get();
        if (reply.outcome == Client::Outcome::REPLIED) {
            std::cout << std::string(reply.payload.begin(), reply.payload.end()) << "\n";
        } else {
            std::cerr << "consumer: a request got no reply\n";
            status = 1;
        }
    }
    return status;
} catch (std::exception const& error) {
    std::cerr << "consumer: " << error.what() << "\n";
    return 1;
}
