#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include <vesk/VeskConfig.h>
#include <vesk/VeskFrame.h>
#include <vesk/hostkit/FrameText.h>

namespace vesk::tool {

/** Which frames vesk tap shows: those that fit one word of each kind that is given. */
class TapFilter {
public:
    using Direction = hostkit::FrameText::Direction;

    /**
     * Throws UsageError for a word that is none, or names what the catalogue has not.
     *
     * @param words     such as "dir=in"; none: every frame fits.
     * @param catalogue must outlive the filter.
     */
    TapFilter(std::vector<std::string> const& words, VeskConfig const& catalogue);

    bool fits(Direction direction, VeskFrame const& frame) const;

    /** Whether bytes fit that have come in and belong to no frame. */
    bool fitsSkipped() const;

private:
    std::string valueOf(std::string const& kind, Direction direction, VeskFrame const& frame) const;

    VeskConfig const& mCatalogue;
    std::map<std::string, std::set<std::string>> mWanted;  // values by kind
};

}  // namespace vesk::tool
