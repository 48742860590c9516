#include "Link.h"

#include <fcntl.h>

#include <csignal>
#include <utility>

namespace vesk::hostkit {

Link::Link(asio::io_context& io, int descriptor)
    : mInput(std::in_place, io, descriptor), mReader(*mInput), mWriter(*mInput) {}

Link::Link(asio::io_context& io, int input, int output)
    : mInput(std::in_place, io, input),
      mOutput(std::in_place, io, output),
      mReader(*mInput),
      mWriter(*mOutput),
      mFlags(Flags{::fcntl(input, F_GETFL), ::fcntl(output, F_GETFL)}) {}

Link::Link(std::unique_ptr<ChildProcess> child)
    : mChild(std::move(child)), mReader(mChild->output()), mWriter(mChild->input()) {}

bool Link::hasUnread() {
    asio::posix::descriptor_base::bytes_readable waiting;
    asio::error_code unknown;
    mReader.io_control(waiting, unknown);
    return waiting.get() > 0;
}

void Link::close() {
    if (mFlags && mReader.is_open()) {
        ::fcntl(mReader.native_handle(), F_SETFL, mFlags->input);
        ::fcntl(mWriter.native_handle(), F_SETFL, mFlags->output);
    }
    asio::error_code ignored;
    mReader.close(ignored);
    mWriter.close(ignored);
    if (mChild) mChild->signal(SIGTERM);
}

}  // namespace vesk::hostkit
