// vesk decode: decode.txt, beside this file, has what it reads and what it prints.

#include <sstream>

#include "HexText.h"
#include "StreamDecoder.h"
#include "support/Scene.h"

namespace vesk::e2e {

class DecodeTest : public Scene {
protected:
    struct Case {
        std::string options, input, output, errors;
    };

    static std::vector<Case> cases() {
        std::vector<Case> all;
        std::ifstream file(VESK_E2E "/decode.txt");
        std::string line;
        std::getline(file, line);  // the comment
        while (std::getline(file, line)) {
            if (line.rfind("--hex", 0) == 0) {
                all.push_back({line, "", "", ""});
            } else if (!all.empty() && !line.empty()) {
                Case& last = all.back();
                bool const output = line[0] == '>', errors = line[0] == '!';
                std::string& part = output ? last.output : errors ? last.errors : last.input;
                part += output || errors ? line.substr(2) : line;
                if (!errors) part += '\n';
            }
        }
        return all;
    }

    std::string const& write(Bytes const& bytes) {
        std::ofstream(path("bytes"), std::ios::app)
                .write(reinterpret_cast<char const*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
        return mBytes;
    }

    std::string const mBytes = path("bytes");
};

TEST_F(DecodeTest, PrintsWhatIsInPastedHex) {
    size_t failed = 0;
    for (Case const& each : cases()) {
        write({each.input.begin(), each.input.end()});
        Process& decode = start("decode " + each.options + " <" + mBytes);
        bool const wrongUsage = each.output.empty();
        expectEnd(decode, each.errors.empty() ? 0 : wrongUsage ? 2 : 1, each.errors);
        EXPECT_EQ(decode.output(), each.output) << each.input;
        std::filesystem::remove(mBytes);
        failed += each.errors.empty() ? 0 : 1;
    }
    EXPECT_EQ(failed, 10U);
}

TEST_F(DecodeTest, PrintsTheSameWhateverTheChunksAndAsAFileGrows) {
    using tool::StreamDecoder;
    VeskConfig const catalogue;
    Bytes all;
    std::string expected;
    for (Case const& each : cases()) {
        if (each.output.empty()) continue;
        tool::HexText hex;
        Bytes bytes;
        std::istringstream lines(each.input);
        for (std::string line; std::getline(lines, line);) {
            for (uint8_t const byte : hex.read(line))
                bytes.push_back(byte);
        }
        for (size_t const chunk : {size_t{1}, size_t{5}, size_t{17}}) {
            std::string text;
            bool const json = each.options.find("json") != std::string::npos;
            StreamDecoder decoder(catalogue,
                                  json ? StreamDecoder::Form::JSON : StreamDecoder::Form::TEXT,
                                  [&](auto const& line) { text += line + '\n'; });
            for (size_t at = 0; at < bytes.size(); at += chunk)
                decoder.feed(&bytes[at], std::min(chunk, bytes.size() - at), {});
            decoder.finish();
            EXPECT_EQ(text, each.output) << chunk;
        }
        if (all.empty()) all = bytes, expected = each.output;
    }

    write({all.begin(), all.begin() + 20});
    Process& decode = start("decode --follow " + mBytes);
    awaitText(decode, "hello");
    write({all.begin() + 20, all.end()});
    awaitText(decode, "held 500 ms\n");
    EXPECT_EQ(decode.output(), expected);
    decode.signal(SIGTERM);
    await("its end", [&] { return !decode.ending().empty(); });
    expectEnd(start("decode " + path("none")), 1, "No such file");
    expectEnd(start("decode --follow"), 0);  // nothing comes behind the end of what is no file

    // What a capture begins with, and hex without the end of its line.
    for (auto const& [options, text, errors] :
         {std::tuple{"", "\n\r\r", "0 frames, of which a peer ignores 0; 3 bytes belong to no fra"},
          {"--hex ", "0d0a", "2 bytes belong to no frame"}}) {
        std::ofstream(mBytes) << text;
        expectEnd(start("decode " + std::string(options) + mBytes), 1, errors);
    }
}

TEST_F(DecodeTest, TheListIsTheCatalogue) {
    Process& list = start("list --json");
    expectEnd(list, 0);
    EXPECT_EQ(list.output().rfind(R"({"topics":[{"name":"virtualcomm","id":1,"businesses":)"
                                  R"([{"name":"vm","id":1},)",
                                  0),
              0U)
            << list.output();
    std::string const end = R"({"name":"test","id":2,"businesses":[{"name":"test","id":1}]}]})"
                            "\n";
    EXPECT_EQ(list.output().substr(list.output().size() - end.size()), end);
    Process& table = start("list");
    expectEnd(table, 0);
    EXPECT_NE(table.output().find("\nvirtualcomm/cellims1             1           13\n"),
              std::string::npos);
}

}  // namespace vesk::e2e
