#include "ExecJob.h"

#include <utility>

#include <asio/write.hpp>

namespace vesk::tool {

ExecJob::ExecJob(asio::io_context& io, std::string const& command, client::Bytes payload,
                 std::chrono::milliseconds limit)
    : mProcess(io, {{"/bin/sh", "-c", command}, true, true, {}, true}),
      mLimit(limit),
      mTimer(io),
      mPayload(std::move(payload)) {}

void ExecJob::run(Done done) {
    mDone = std::move(done);
    mProcess.output().non_blocking(true);
    // A command need not read its input, so failing to write it is no failure.
    asio::async_write(mProcess.input(), asio::buffer(mPayload),
                      [self = shared_from_this()](asio::error_code const&, size_t) {
                          asio::error_code ignored;
                          self->mProcess.input().close(ignored);
                      });
    awaitOutput();
    awaitEnd();
    awaitLimit();
}

void ExecJob::awaitOutput() {
    mProcess.output().async_wait(asio::posix::descriptor_base::wait_read,
                                 [self = shared_from_this()](asio::error_code const& error) {
                                     if (error || !self->mDone) return;
                                     if (self->takeOutput()) self->awaitOutput();
                                 });
}

// Takes what is there. False when no more can come, or none is wanted.
bool ExecJob::takeOutput() {
    asio::error_code error;
    while (!error) {
        size_t const size = mProcess.output().read_some(asio::buffer(mChunk), error);
        mReply.insert(mReply.end(), mChunk.begin(), mChunk.begin() + size);
        if (mReply.size() <= MAX_PAYLOAD_SIZE) continue;
        finish("the command wrote more than " + std::to_string(MAX_PAYLOAD_SIZE) +
               " bytes, which no reply can carry");
        return false;
    }
    return error == asio::error::would_block;
}

void ExecJob::awaitEnd() {
    mProcess.ended().async_wait(
            asio::posix::descriptor_base::wait_read,
            [self = shared_from_this()](asio::error_code const& error) {
                if (error || !self->mDone) return;
                self->takeOutput();
                if (!self->mDone) return;
                std::string const ending = self->mProcess.awaitEnding();
                self->finish(self->mProcess.succeeded() ? "" : "the command ended with " + ending);
            });
}

void ExecJob::awaitLimit() {
    mTimer.expires_after(mLimit);
    mTimer.async_wait([self = shared_from_this()](asio::error_code const& error) {
        if (error || !self->mDone) return;
        self->finish("the command did not end within " + std::to_string(self->mLimit.count()) +
                     " ms; --job-timeout gives it more");
    });
}

void ExecJob::finish(std::string const& error) {
    mProcess.kill();
    asio::error_code ignored;
    mProcess.input().close(ignored);
    mProcess.output().close(ignored);
    mProcess.ended().close(ignored);
    mTimer.cancel();
    std::exchange(mDone, nullptr)(mReply, error);
}

}  // namespace vesk::tool
