// nghttp2: each request is a stream of its own with a body, and so is its answer. One thread reads,
// answers and writes all that is ready at once. The conversation is the path.

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>

#include "Harness.h"

namespace {

using namespace peers;

struct Stream {
    size_t conversation = 0;
    std::vector<uint8_t> in;
    std::vector<uint8_t> out;
    size_t sent = 0;
};

nghttp2_nv header(char const* name, char const* value) {
    auto const bytes = [](char const* text) {
        return const_cast<uint8_t*>(reinterpret_cast<uint8_t const*>(text));
    };
    return {bytes(name), bytes(value), std::strlen(name), std::strlen(value),
            NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE};
}

ssize_t readBody(nghttp2_session*, int32_t, uint8_t* out, size_t room, uint32_t* flags,
                 nghttp2_data_source* source, void*) {
    auto& stream = *static_cast<Stream*>(source->ptr);
    size_t const size = std::min(room, stream.out.size() - stream.sent);
    std::memcpy(out, stream.out.data() + stream.sent, size);
    stream.sent += size;
    if (stream.sent == stream.out.size()) *flags |= NGHTTP2_DATA_FLAG_EOF;
    return ssize_t(size);
}

nghttp2_data_provider bodyOf(Stream& stream) {
    nghttp2_data_provider body{};
    body.source.ptr = &stream;
    body.read_callback = readBody;
    return body;
}

class Peer {
public:
    Peer(int channel, Load* load) : mChannel(channel), mLoad(load) {
        nghttp2_session_callbacks* callbacks = nullptr;
        nghttp2_session_callbacks_new(&callbacks);
        nghttp2_session_callbacks_set_on_begin_headers_callback(callbacks, onBegin);
        nghttp2_session_callbacks_set_on_header_callback(callbacks, onHeader);
        nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, onData);
        nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, onFrame);
        nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, onClose);
        load ? nghttp2_session_client_new(&mSession, callbacks, this)
             : nghttp2_session_server_new(&mSession, callbacks, this);
        nghttp2_settings_entry const settings[] = {{NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, 1000},
                                                   {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, WINDOW}};
        nghttp2_submit_settings(mSession, NGHTTP2_FLAG_NONE, settings, 2);
        nghttp2_session_set_local_window_size(mSession, NGHTTP2_FLAG_NONE, 0, WINDOW);
        for (size_t i = 0; i < Load::CONVERSATIONS; ++i)
            mPaths.push_back("/" + std::string(1, char('a' + i)));
    }

    void ask() {
        auto const request = mLoad->next();
        auto* const stream = new Stream;
        stream->conversation = request.conversation;
        stream->out.assign(request.data, request.data + request.size);
        nghttp2_nv const headers[] = {header(":method", "POST"), header(":scheme", "http"),
                                      header(":authority", "peer"),
                                      header(":path", mPaths[request.conversation].c_str())};
        nghttp2_data_provider const body = bodyOf(*stream);
        require(nghttp2_submit_request(mSession, nullptr, headers, 4, &body, stream) > 0,
                "cannot ask");
    }

    void work() {
        std::vector<uint8_t> bytes(65536);
        while (!mLoad || !mLoad->done()) {
            write();
            size_t const size = readSome(mChannel, bytes.data(), bytes.size());
            require(nghttp2_session_mem_recv(mSession, bytes.data(), size) == ssize_t(size),
                    "cannot read");
        }
    }

private:
    static constexpr uint32_t WINDOW = 1U << 24;

    void write() {
        mOut.clear();
        uint8_t const* part = nullptr;
        for (ssize_t size = 0; (size = nghttp2_session_mem_send(mSession, &part)) > 0;)
            mOut.insert(mOut.end(), part, part + size);
        if (!mOut.empty()) writeAll(mChannel, mOut.data(), mOut.size());
    }

    void complete(int32_t id, Stream& stream) {
        if (mLoad) {
            if (mLoad->replied(stream.conversation, stream.in.data(), stream.in.size())) ask();
            return;
        }
        stream.out.swap(stream.in);
        nghttp2_nv const status = header(":status", "200");
        nghttp2_data_provider const body = bodyOf(stream);
        require(nghttp2_submit_response(mSession, id, &status, 1, &body) == 0, "cannot answer");
    }

    static Stream* streamOf(nghttp2_session* session, int32_t id) {
        return static_cast<Stream*>(nghttp2_session_get_stream_user_data(session, id));
    }

    static int onBegin(nghttp2_session* session, nghttp2_frame const* frame, void* self) {
        if (!static_cast<Peer*>(self)->mLoad)
            nghttp2_session_set_stream_user_data(session, frame->hd.stream_id, new Stream);
        return 0;
    }

    static int onHeader(nghttp2_session* session, nghttp2_frame const* frame, uint8_t const* name,
                        size_t, uint8_t const* value, size_t size, uint8_t, void*) {
        bool const isPath = std::strcmp(reinterpret_cast<char const*>(name), ":path") == 0;
        if (isPath && size == 2) streamOf(session, frame->hd.stream_id)->conversation = value[1];
        return 0;
    }

    static int onData(nghttp2_session* session, uint8_t, int32_t id, uint8_t const* data,
                      size_t size, void*) {
        auto& in = streamOf(session, id)->in;
        in.insert(in.end(), data, data + size);
        return 0;
    }

    static int onFrame(nghttp2_session* session, nghttp2_frame const* frame, void* self) {
        bool const ends = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        auto* const stream = ends ? streamOf(session, frame->hd.stream_id) : nullptr;
        if (stream) static_cast<Peer*>(self)->complete(frame->hd.stream_id, *stream);
        return 0;
    }

    static int onClose(nghttp2_session* session, int32_t id, uint32_t, void*) {
        delete streamOf(session, id);
        return 0;
    }

    int const mChannel;
    Load* const mLoad;
    nghttp2_session* mSession = nullptr;
    std::vector<std::string> mPaths;
    std::vector<uint8_t> mOut;
};

void serve(Channel const& channel, Options const&) {
    Peer(channel.end, nullptr).work();
}

void ask(Channel const& channel, Options const& options, Load& load) {
    Peer peer(channel.end, &load);
    for (size_t i = 0; i < options.window; ++i)
        peer.ask();
    peer.work();
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv, serve, ask);
}
