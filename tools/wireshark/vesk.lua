-- Frames of libvesk in Wireshark and tshark: in captures of vesk host (--capture), whatever the
-- pieces in which the bytes were recorded, and on the TCP ports that the preferences name.
--
--   wireshark -X lua_script:vesk.lua FILE.pcapng
--   tshark -2 -X lua_script:vesk.lua -o vesk.tcp_ports:7000 -r FILE.pcapng
--
-- tshark -2 reads twice, and so knows at a request where its reply is. docs/protocol.md describes
-- the bytes.

local vesk = Proto("vesk", "libvesk frames")

-- The catalogue; scripts/dissector --write makes it from the library's.
-- catalogue begins
local TOPICS = {
    [1] = "virtualcomm",
    [2] = "test",
}
local BUSINESSES = {
    [1] = {
        [1] = "vm",
        [2] = "ril0",
        [3] = "ril1",
        [4] = "ril2",
        [5] = "imsril0",
        [6] = "imsril1",
        [7] = "datashred",
        [8] = "phone",
        [9] = "quillex",
        [10] = "cell0",
        [11] = "cell1",
        [12] = "cellims0",
        [13] = "cellims1",
    },
    [2] = {
        [1] = "test",
    },
}
-- catalogue ends

local ACKNOWLEDGEMENT, REQUEST, REPLY = 1, 2, 3
local TYPES = { [ACKNOWLEDGEMENT] = "acknowledgement", [REQUEST] = "request", [REPLY] = "reply" }
local MAGIC, HEAD, ACK_ID, ENTRY = 0x55, 12, 0xAA, 4
local SILENCE = 1        -- s; then a reader gives up a frame that was cut
local ACK_TIMEOUT = 2    -- s; then a writer does not await the acknowledgement any more

local SHOWN_TOPICS = { [ACK_ID] = "acknowledgement" }
for id, name in pairs(TOPICS) do SHOWN_TOPICS[id] = name end

local f = {
    magic = ProtoField.uint8("vesk.magic", "Magic", base.HEX),
    length = ProtoField.uint16("vesk.length", "Length of the data"),
    topic = ProtoField.uint8("vesk.topic", "Topic", base.DEC, SHOWN_TOPICS),
    business = ProtoField.uint8("vesk.business", "Business"),
    name = ProtoField.string("vesk.name", "Topic and business"),
    type = ProtoField.uint8("vesk.type", "Type", base.DEC, TYPES),
    reply = ProtoField.uint16("vesk.reply", "Reply field"),
    serial = ProtoField.uint16("vesk.serial", "Serial number"),
    msgid = ProtoField.uint16("vesk.msgid", "Message id"),
    data = ProtoField.bytes("vesk.data", "Data"),
    ack = ProtoField.none("vesk.ack", "Acknowledges"),
    ack_held = ProtoField.uint16("vesk.ack.held", "Held (ms)"),
    ack_serial = ProtoField.uint16("vesk.ack.serial", "Serial number"),
    ack_frame = ProtoField.framenum("vesk.ack.frame", "The frame is in", base.NONE,
        frametype.ACK),
    ack_time = ProtoField.relative_time("vesk.ack.time", "Time since the frame"),
    reply_in = ProtoField.framenum("vesk.reply_in", "The reply is in", base.NONE,
        frametype.RESPONSE),
    request_in = ProtoField.framenum("vesk.request_in", "The request is in", base.NONE,
        frametype.REQUEST),
    reply_time = ProtoField.relative_time("vesk.reply_time", "Time since the request"),
    acked_in = ProtoField.framenum("vesk.acked_in", "Acknowledged in", base.NONE, frametype.ACK),
    acked_time = ProtoField.relative_time("vesk.acked_time", "Time until the acknowledgement"),
    garbage = ProtoField.bytes("vesk.garbage", "Bytes that belong to no frame"),
    part = ProtoField.bytes("vesk.part", "Part of a frame that goes on later"),
}
vesk.fields = f

local e = {
    garbage = ProtoExpert.new("vesk.expert.garbage", "Bytes that belong to no frame",
        expert.group.MALFORMED, expert.severity.ERROR),
    count = ProtoExpert.new("vesk.expert.count",
        "The reply field is not the number of entries: the frame is ignored",
        expert.group.MALFORMED, expert.severity.ERROR),
    no_ack = ProtoExpert.new("vesk.expert.no_ack",
        "Type 1, but not topic and business 170: the frame is ignored",
        expert.group.MALFORMED, expert.severity.ERROR),
    business = ProtoExpert.new("vesk.expert.business",
        "Not in the catalogue: the frame is dropped and not acknowledged",
        expert.group.PROTOCOL, expert.severity.WARN),
    type = ProtoExpert.new("vesk.expert.type",
        "There is no such type: the frame is acknowledged and dropped",
        expert.group.PROTOCOL, expert.severity.WARN),
    late = ProtoExpert.new("vesk.expert.late",
        "Acknowledged after more than 2 s: the sender does not await it any more",
        expert.group.SEQUENCE, expert.severity.NOTE),
}
vesk.experts = { e.garbage, e.count, e.no_ack, e.business, e.type, e.late }

vesk.prefs.tcp_ports = Pref.range("TCP ports", "", "Streams on these ports carry frames", 65535)

-- Not all fields are there when a capture is read for the first time; what pinfo has, is.
local PORTS_OF_TCP = 2

-- What is known of the capture. Everything is found out at the first visit of each packet.
local opening   -- of the channel: how many there have been
local streams   -- by stream: the bytes of an incomplete frame, whether in step, the last time
local visits    -- by visit: what was found in it
local requests  -- by what a reply has in common with its request: the last request
local awaiting  -- by stream and serial number: frames to be acknowledged, oldest first

function vesk.init()
    opening = 0
    streams, visits, requests, awaiting = {}, {}, {}, {}
end

local function u16(bytes, at)
    return bytes:get_index(at) + bytes:get_index(at + 1) * 256
end

-- The fields of the header at a place in a ByteArray.
local function header(bytes, at)
    return {
        length = u16(bytes, at + 1), topic = bytes:get_index(at + 3),
        business = bytes:get_index(at + 4), type = bytes:get_index(at + 5),
        reply = u16(bytes, at + 6), serial = u16(bytes, at + 8), msgid = u16(bytes, at + 10),
    }
end

local function is_ack(head)
    return head.type == ACKNOWLEDGEMENT and head.topic == ACK_ID and head.business == ACK_ID
end

local function in_catalogue(head)
    return BUSINESSES[head.topic] ~= nil and BUSINESSES[head.topic][head.business] ~= nil
end

local function is_plausible(head)
    if head.type == ACKNOWLEDGEMENT then
        return is_ack(head) and math.floor(head.length / ENTRY) == head.reply
    end
    return in_catalogue(head)
end

-- Finds frames and garbage, as the library's reader does. Returns these, where the rest begins, how
-- many more bytes it wants at least (nil: unknown), and whether the reader is in step there.
local function scan(bytes, from, in_step, rest_comes)
    local items, at, size = {}, from, bytes:len()
    local function skip()
        local last = items[#items]
        if last and last.garbage and last.at + last.size == at then
            last.size = last.size + 1
        else
            items[#items + 1] = { garbage = true, at = at, size = 1 }
        end
        at, in_step = at + 1, false
    end
    while at < size do
        if bytes:get_index(at) ~= MAGIC then
            skip()
        elseif size - at < HEAD then
            if rest_comes then return items, at, nil, in_step end
            skip()
        else
            local head = header(bytes, at)
            local whole = HEAD + head.length
            if not (in_step or is_plausible(head)) then
                skip()
            elseif size - at >= whole then
                items[#items + 1] = { head = head, at = at, size = whole }
                at, in_step = at + whole, true
            elseif rest_comes then
                return items, at, whole - (size - at), in_step
            else
                skip()
            end
        end
    end
    return items, at, nil, in_step
end

-- Remembers what belongs together. `way` names the two directions of one channel.
local function link(item, bytes, way, pinfo)
    local head = item.head
    item.number, item.time = pinfo.number, pinfo.rel_ts
    if is_ack(head) then
        item.acks = {}
        if math.floor(head.length / ENTRY) ~= head.reply then return end
        for i = 0, head.reply - 1 do
            local serial = u16(bytes, item.at + HEAD + i * ENTRY + 2)
            local sent = awaiting[way.back .. "/" .. serial]
            local frame = sent and table.remove(sent, 1)
            if frame then
                frame.acked_by, item.acks[i] = item, frame
            end
        end
        return
    end
    if head.type == ACKNOWLEDGEMENT or not in_catalogue(head) then return end
    local key = way.there .. "/" .. head.serial
    awaiting[key] = awaiting[key] or {}
    table.insert(awaiting[key], item)
    local asked = string.format("/%d/%d/%d/%d", head.topic, head.business, head.reply, head.msgid)
    if head.type == REQUEST then
        requests[way.there .. asked] = item
    elseif head.type == REPLY then
        item.request = requests[way.back .. asked]
        requests[way.back .. asked] = nil
        if item.request then item.request.answer = item end
    end
end

local function duration(from, to)
    local time = to - from
    local seconds = math.floor(time)
    return NSTime.new(seconds, math.floor((time - seconds) * 1e9 + 0.5))
end

local function name_of(head)
    if is_ack(head) then return "acknowledgement" end
    local topic = TOPICS[head.topic] or ("topic " .. head.topic)
    local business = BUSINESSES[head.topic] and BUSINESSES[head.topic][head.business]
    return topic .. "/" .. (business or ("business " .. head.business))
end

local function describe(head)
    if is_ack(head) then return "acknowledgement of " .. math.floor(head.length / ENTRY) end
    local kind = (head.type == REQUEST or head.type == REPLY) and TYPES[head.type]
    return string.format("%s %s session %d, msg %d, %d bytes", kind or ("type " .. head.type),
        name_of(head), head.reply, head.msgid, head.length)
end

local function show_links(item, tree)
    if item.answer then
        tree:add(f.reply_in, item.answer.number):set_generated()
    end
    if item.request then
        tree:add(f.request_in, item.request.number):set_generated()
        tree:add(f.reply_time, duration(item.request.time, item.time)):set_generated()
    end
    if item.acked_by then
        tree:add(f.acked_in, item.acked_by.number):set_generated()
        tree:add(f.acked_time, duration(item.time, item.acked_by.time)):set_generated()
        if item.acked_by.time - item.time > ACK_TIMEOUT then tree:add_proto_expert_info(e.late) end
    end
end

local function show_entries(item, range, tree)
    for i = 0, math.floor(item.head.length / ENTRY) - 1 do
        local entry = range(HEAD + i * ENTRY, ENTRY)
        local branch = tree:add(f.ack, entry)
        branch:set_text(string.format("Acknowledges serial number %d, held %d ms",
            entry(2, 2):le_uint(), entry(0, 2):le_uint()))
        branch:add_le(f.ack_held, entry(0, 2))
        branch:add_le(f.ack_serial, entry(2, 2))
        local frame = item.acks and item.acks[i]
        if frame then
            branch:add(f.ack_frame, frame.number):set_generated()
            branch:add(f.ack_time, duration(frame.time, item.time)):set_generated()
        end
    end
end

local function show_frame(item, range, tree)
    local head = item.head
    local branch = tree:add(vesk, range, "Frame: " .. describe(head))
    branch:add(f.magic, range(0, 1))
    branch:add_le(f.length, range(1, 2))
    branch:add(f.topic, range(3, 1))
    branch:add(f.business, range(4, 1))
    branch:add(f.name, range(3, 2), name_of(head)):set_generated()
    local kind = branch:add(f.type, range(5, 1))
    local reply = branch:add_le(f.reply, range(6, 2))
    branch:add_le(f.serial, range(8, 2))
    branch:add_le(f.msgid, range(10, 2))
    if is_ack(head) then
        reply:append_text(" (entries)")
        if math.floor(head.length / ENTRY) ~= head.reply then
            branch:add_proto_expert_info(e.count)
        end
        show_entries(item, range, branch)
        return
    end
    if head.length > 0 then branch:add(f.data, range(HEAD, head.length)) end
    if head.type == ACKNOWLEDGEMENT then
        branch:add_proto_expert_info(e.no_ack)
    elseif not in_catalogue(head) then
        branch:add_proto_expert_info(e.business)
    elseif not TYPES[head.type] then
        kind:add_proto_expert_info(e.type)
    end
    show_links(item, branch)
end

local last_shown

local function show(visit, tvb, pinfo, tree)
    local texts = {}
    for _, item in ipairs(visit.items) do
        if item.garbage then
            local range = tvb(item.at, item.size)
            local branch = tree:add(vesk, range, item.size .. " bytes that belong to no frame")
            branch:add(f.garbage, range)
            branch:add_proto_expert_info(e.garbage)
            texts[#texts + 1] = item.size .. " bytes of no frame"
        else
            show_frame(item, tvb(item.at, item.size), tree)
            texts[#texts + 1] = describe(item.head)
        end
    end
    if visit.rest < tvb:len() and not visit.goes_on then
        local range = tvb(visit.rest)
        tree:add(vesk, range, "Part of a frame"):add(f.part, range)
        texts[#texts + 1] = range:len() .. " bytes of a frame that goes on"
    end
    local text = table.concat(texts, "; ")
    if text == "" then return end
    pinfo.cols.protocol = "VESK"
    if pinfo.number == last_shown then  -- of one TCP segment, the frames behind the first ones
        pinfo.cols.info:append("; " .. text)
    else
        pinfo.cols.info = text
    end
    last_shown = pinfo.number
end

-- A capture of a channel: each packet is any piece of one direction of it. An empty one says that the
-- channel has been opened, and that what comes belongs to nothing before it.
local function dissect_channel(tvb, pinfo, tree)
    if tvb:len() == 0 then
        pinfo.cols.protocol = "VESK"
        if not pinfo.visited then opening = opening + 1 end
        pinfo.cols.info = "The channel is open"
        return
    end
    local channel = "channel " .. opening .. " "
    local ways = {
        there = channel .. pinfo.p2p_dir,
        back = channel .. (pinfo.p2p_dir == P2P_DIR_SENT and P2P_DIR_RECV or P2P_DIR_SENT),
    }
    local visit = visits[pinfo.number]
    if not visit then
        local stream = streams[ways.there] or { rest = ByteArray.new(), in_step = true }
        streams[ways.there] = stream
        visit = { before = stream.rest, items = {} }
        visits[pinfo.number] = visit
        local bytes, from = visit.before .. tvb:range():bytes(), 0
        local given_up = {}
        if stream.rest:len() > 0 and pinfo.rel_ts - stream.time >= SILENCE then
            given_up = scan(visit.before, 0, false, false)
            from, stream.in_step = visit.before:len(), true
        elseif stream.time and pinfo.rel_ts - stream.time >= SILENCE then
            stream.in_step = true
        end
        local items
        items, visit.rest, _, stream.in_step = scan(bytes, from, stream.in_step, true)
        for _, list in ipairs({ given_up, items }) do
            for _, item in ipairs(list) do
                visit.items[#visit.items + 1] = item
                if item.head then link(item, bytes, ways, pinfo) end
            end
        end
        local left = bytes:len() - visit.rest
        stream.rest = left > 0 and bytes:subset(visit.rest, left) or ByteArray.new()
        stream.time = pinfo.rel_ts
    end
    if visit.before:len() > 0 then
        tvb = (visit.before .. tvb:range():bytes()):tvb("With what came before")
    end
    show(visit, tvb, pinfo, tree)
end

-- A TCP stream: Wireshark puts the pieces together, and calls again with all of a frame.
local function dissect_tcp(tvb, pinfo, tree)
    local from = tostring(pinfo.src) .. ":" .. pinfo.src_port
    local to = tostring(pinfo.dst) .. ":" .. pinfo.dst_port
    local ways = { there = from .. " to " .. to, back = to .. " to " .. from }
    local bytes = tvb:range():bytes()
    local key = pinfo.number .. "/" .. bytes:len() .. "/" .. tvb:offset()
    local visit = visits[key]
    if not visit then
        local state = streams[ways.there] or { in_step = true }
        streams[ways.there] = state
        visit = {}
        visits[key] = visit
        visit.items, visit.rest, visit.wanted, state.in_step = scan(bytes, 0, state.in_step, true)
        for _, item in ipairs(visit.items) do
            if item.head then link(item, bytes, ways, pinfo) end
        end
    end
    if visit.rest < bytes:len() and pinfo.can_desegment > 0 then
        visit.goes_on = true
        pinfo.desegment_offset = visit.rest
        pinfo.desegment_len = visit.wanted or DESEGMENT_ONE_MORE_SEGMENT
    end
    show(visit, tvb, pinfo, tree)
end

function vesk.dissector(tvb, pinfo, tree)
    if pinfo.port_type == PORTS_OF_TCP then
        dissect_tcp(tvb, pinfo, tree)
    else
        dissect_channel(tvb, pinfo, tree)
    end
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, vesk)

local tcp_ports = ""
function vesk.prefs_changed()
    local table = DissectorTable.get("tcp.port")
    if tcp_ports ~= "" then table:remove(tcp_ports, vesk) end
    tcp_ports = vesk.prefs.tcp_ports
    if tcp_ports ~= "" then table:add(tcp_ports, vesk) end
end
