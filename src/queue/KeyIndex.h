#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace vesk {

/**
 * Finds entries by a 16-bit number that several may share, in constant time, and gives the oldest
 * of them. Takes memory for those hundreds of numbers alone that are in use.
 *
 * Ownership: an entry contains its Hook, and is removed before it is destroyed or moved.
 * Threads:   none of its own; the owner's lock guards it.
 */
template <typename Entry>
class KeyIndex {
public:
    /**
     * An entry's place among those of the same key, which form a ring in the order of appending.
     */
    struct Hook {
        Entry* entry = nullptr;
        Hook* previous = nullptr;
        Hook* next = nullptr;
        uint16_t key = 0;
    };

    void append(Hook& hook, Entry& entry, uint16_t key) {
        hook = {&entry, &hook, &hook, key};
        std::unique_ptr<Page>& page = pageOf(key);
        if (!page) page = std::make_unique<Page>();
        Hook*& oldest = page->oldest[placeOf(key)];
        if (oldest == nullptr) {
            oldest = &hook;
            ++page->used;
            return;
        }
        hook.previous = oldest->previous;
        hook.next = oldest;
        hook.previous->next = &hook;
        oldest->previous = &hook;
    }

    void remove(Hook const& hook) {
        std::unique_ptr<Page>& page = pageOf(hook.key);
        Hook*& oldest = page->oldest[placeOf(hook.key)];
        if (hook.next == &hook) {
            oldest = nullptr;
            if (--page->used == 0) page.reset();
            return;
        }
        hook.previous->next = hook.next;
        hook.next->previous = hook.previous;
        if (oldest == &hook) oldest = hook.next;
    }

    /** The entry with this key that was appended first; null when there is none. */
    Entry* oldest(uint16_t key) {
        Page const* const page = pageOf(key).get();
        Hook const* const found = page == nullptr ? nullptr : page->oldest[placeOf(key)];
        return found == nullptr ? nullptr : found->entry;
    }

private:
    static constexpr size_t PAGE_SIZE = 256;
    struct Page {
        std::array<Hook*, PAGE_SIZE> oldest{};
        size_t used = 0;
    };

    std::unique_ptr<Page>& pageOf(uint16_t key) { return mPages[key / PAGE_SIZE]; }
    static size_t placeOf(uint16_t key) { return key % PAGE_SIZE; }

    std::array<std::unique_ptr<Page>, UINT16_MAX / PAGE_SIZE + 1> mPages;
};

}  // namespace vesk
