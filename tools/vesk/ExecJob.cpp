#include "ExecJob.h"

#include <chrono>
#include <utility>

#include <asio/write.hpp>

namespace vesk::tool {

namespace {
// Behind the end of its output a command has nothing left to do but to end.
constexpr std::chrono::milliseconds END_POLL{2};
}  // namespace

ExecJob::ExecJob(asio::io_context& io, std::string const& command, client::Bytes payload)
    : mProcess(io, {{"/bin/sh", "-c", command}, true, true, {}}),
      mTimer(io),
      mPayload(std::move(payload)) {}

void ExecJob::run(Done done) {
    mDone = std::move(done);
    // A command need not read its input, so failing to write it is no failure.
    asio::async_write(mProcess.input(), asio::buffer(mPayload),
                      [self = shared_from_this()](asio::error_code const&, size_t) {
                          asio::error_code ignored;
                          self->mProcess.input().close(ignored);
                      });
    read();
}

void ExecJob::read() {
    mProcess.output().async_read_some(asio::buffer(mChunk), [self = shared_from_this()](
                                                                    asio::error_code const& error,
                                                                    size_t size) {
        auto const end = self->mChunk.begin() + size;
        self->mReply.insert(self->mReply.end(), self->mChunk.begin(), end);
        if (self->mReply.size() > MAX_PAYLOAD_SIZE) {
            return self->finish("the command wrote more than " + std::to_string(MAX_PAYLOAD_SIZE) +
                                " bytes, which no reply can carry");
        }
        error ? self->awaitEnd() : self->read();
    });
}

void ExecJob::awaitEnd() {
    if (std::string const ending = mProcess.ending(); !ending.empty()) {
        return finish(mProcess.succeeded() ? "" : "the command ended with " + ending);
    }
    mTimer.expires_after(END_POLL);
    mTimer.async_wait([self = shared_from_this()](asio::error_code const& error) {
        if (!error) self->awaitEnd();
    });
}

void ExecJob::finish(std::string const& error) {
    asio::error_code ignored;
    mProcess.input().close(ignored);
    std::exchange(mDone, nullptr)(mReply, error);
}

}  // namespace vesk::tool
