#pragma once

#include <cstdint>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vesk {

/** The hex blocks of docs/protocol.md. VESK_DOCS is its folder. */
class ProtocolPage {
public:
    /** A line of a block: what stands before the hex, and the bytes. */
    struct Line {
        std::string words;
        std::vector<uint8_t> bytes;
    };

    struct Block {
        std::string title;
        std::vector<Line> lines;
    };

    ProtocolPage() {
        std::ifstream file(VESK_DOCS "/protocol.md");
        std::stringstream content;
        content << file.rdbuf();
        mText = content.str();
    }

    std::string const& text() const { return mText; }

    /** The blocks whose comment begins with this word; what follows it there is the title. */
    std::vector<Block> blocks(std::string const& kind) const {
        std::vector<Block> found;
        std::string const begin = "\n<!-- " + kind, fence = " -->\n```hex\n";
        for (size_t at = mText.find(begin); at != std::string::npos;
             at = mText.find(begin, at + 1)) {
            size_t const title = at + begin.size();
            size_t const bytes = mText.find(fence, title) + fence.size();
            Block block{mText.substr(title, bytes - fence.size() - title), {}};
            block.title.erase(0, block.title.find_first_not_of(": "));
            std::istringstream lines(mText.substr(bytes, mText.find("```", bytes) - bytes));
            for (std::string line; std::getline(lines, line);)
                append(block.lines, parse(line.substr(0, line.find('#'))));
            found.push_back(block);
        }
        if (found.empty()) throw std::runtime_error("docs/protocol.md has no block: " + kind);
        return found;
    }

private:
    /** A line without words goes on with the one before it. */
    static void append(std::vector<Line>& lines, Line const& next) {
        if (lines.empty() || !next.words.empty()) lines.push_back({next.words, {}});
        auto& bytes = lines.back().bytes;
        bytes.insert(bytes.end(), next.bytes.begin(), next.bytes.end());
    }

    static Line parse(std::string const& line) {
        static std::regex const form("(.*?)((?:[0-9a-f]{2}\\b *)*)");
        std::smatch parts;
        std::regex_match(line, parts, form);
        std::istringstream digits(parts[2]);
        Line parsed{std::regex_replace(parts[1].str(), std::regex(" +$"), ""), {}};
        for (unsigned byte = 0; digits >> std::hex >> byte;)
            parsed.bytes.push_back(static_cast<uint8_t>(byte));
        return parsed;
    }

    std::string mText;
};

}  // namespace vesk
