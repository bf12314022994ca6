-- tolvane.lua - Wireshark and tshark show tolvane's messages, on any port.
--
--   tshark -X lua_script:tools/wireshark/tolvane.lua -i lo -Y tolvane
--   to install it: copy it to the folder of personal Lua plugins (Help, About Wireshark, Folders)
--
-- Finds    messages by the watermark at the start of a segment; docs/protocol.md has the bytes.
-- Shows    each message's fields; gaps in the numbers of one direction; with a reply, its request
--          and the time between. On pipelined links replies are also sent as requests, so they are
--          not matched there. In filters: tolvane.type, tolvane.time > 0.1, tolvane.sequence.gap
-- State    collected in the first pass, per connection and direction; results are kept per message.

local proto = Proto("tolvane", "Tolvane messages")

local WATERMARK = "TCP_WATER_MARK\0"
local HEADER_SIZE = 36
local MARKER = "\nvelun_tolvane_payload\n"
local MAX_SEQUENCE = 2147483647

-- In the order in which the library looks for the tags.
local KINDS = {
    [0] = "login", "logout", "request", "reply", "heartbeat", "heartbeatack", "unknown"
}
local UNKNOWN = 6
local ANSWERS = { [3] = 2, [5] = 4 } -- a reply answers a request, an acknowledgement a heartbeat

local field = {
    length = ProtoField.uint32("tolvane.length", "Length"),
    sequence = ProtoField.int32("tolvane.sequence", "Sequence"),
    kind = ProtoField.uint8("tolvane.type", "Type", base.DEC, KINDS),
    url = ProtoField.string("tolvane.url", "URL"),
    payload = ProtoField.bytes("tolvane.payload", "Payload"),
    text = ProtoField.string("tolvane.text", "Text"),
    hb_sequence = ProtoField.int32("tolvane.heartbeat.sequence", "Heartbeats sent"),
    hb_interval = ProtoField.int32("tolvane.heartbeat.interval", "Interval (ms)"),
    hb_count = ProtoField.int32("tolvane.heartbeat.count", "Count"),
    answer_in = ProtoField.framenum("tolvane.answer_in", "Answered in", base.NONE,
        frametype.RESPONSE),
    answer_to = ProtoField.framenum("tolvane.answer_to", "Answers", base.NONE, frametype.REQUEST),
    time = ProtoField.double("tolvane.time", "Seconds since what it answers"),
}
proto.fields = field

local expert = {
    gap = ProtoExpert.new("tolvane.sequence.gap", "Gap in the sequence",
        expert.group.SEQUENCE, expert.severity.WARN),
    frame = ProtoExpert.new("tolvane.bad_frame", "The receiver closes the connection",
        expert.group.MALFORMED, expert.severity.ERROR),
    message = ProtoExpert.new("tolvane.bad_message", "Not a message",
        expert.group.MALFORMED, expert.severity.ERROR),
    tag = ProtoExpert.new("tolvane.tag_in_payload", "The payload makes it another message",
        expert.group.PROTOCOL, expert.severity.WARN),
}
proto.experts = expert

local stream_of = Field.new("tcp.stream")

local directions -- what is known of each direction of each connection so far
local messages   -- what was found for each message

function proto.init()
    directions = {}
    messages = {}
end

local function direction_from(stream, port)
    local key = stream .. ":" .. port
    directions[key] = directions[key] or { unanswered = {} }
    return directions[key]
end

-- What a receiver does with a number: after 0 it accepts any, otherwise only the next one. Returns
-- whether it accepts this one, and what is wrong with it. A capture may begin in the middle of a
-- connection, so any first number is accepted.
local function check_sequence(from, sequence)
    local last = from.last
    local due = last and (last == MAX_SEQUENCE and 0 or last + 1)
    if not last or sequence == due then
        from.last = sequence
        return true
    end
    local text = string.format("Gap in the sequence: %d instead of %d", sequence, due)
    if last == 0 then
        from.last = sequence
        return true, text
    end
    return false, text .. ", the receiver drops the message"
end

-- An answer belongs to the receiver's latest message that asks for one, unless that is already
-- answered.
local function tie(message, from, to)
    local asked_kind = ANSWERS[message.kind]
    if message.kind == ANSWERS[3] or message.kind == ANSWERS[5] then
        from.unanswered[message.kind] = message
    elseif asked_kind and to.unanswered[asked_kind] then
        message.asked = to.unanswered[asked_kind]
        message.asked.answer = message
        to.unanswered[asked_kind] = nil
    end
end

-- The type that the library assumes: the first of the tags, in their order, anywhere in the text.
local function type_taken(body)
    local text = body:match("^[^\0]*")
    for kind = 0, UNKNOWN - 1 do
        if text:find("velun_tolvane_" .. KINDS[kind] .. "\n", 1, true) then
            return kind
        end
    end
    return UNKNOWN
end

-- Parse the fields of a body from its start. Positions count from 0; those of missing fields are nil,
-- and a missing kind is UNKNOWN.
local function parse(body)
    local message = { kind = UNKNOWN }
    local sequence, tag, url_at = body:match("^(%d+)\nvelun_tolvane_(%l+)\n()")
    if not sequence then
        return message
    end
    for kind = 0, UNKNOWN - 1 do
        if KINDS[kind] == tag then
            message.kind = kind
        end
    end
    message.sequence = math.min(tonumber(sequence), MAX_SEQUENCE)
    message.digits = #sequence
    message.url_at = url_at - 1
    local marker, last = body:find(MARKER, url_at, true)
    message.url_size = (marker or #body + 1) - url_at
    message.payload_at = last
    message.taken = type_taken(body)
    return message
end

-- The fields of a message and its related messages, found when it is first seen.
local function message_of(tvb, pinfo, body)
    local key = pinfo.number .. ":" .. tvb:offset()
    if not pinfo.visited or not messages[key] then
        local message = parse(body)
        local stream = stream_of().value
        local from = direction_from(stream, pinfo.src_port)
        local to = direction_from(stream, pinfo.dst_port)
        message.number = pinfo.number
        message.time = pinfo.rel_ts
        messages[key] = message
        local accepted
        if message.sequence then
            accepted, message.gap = check_sequence(from, message.sequence)
        end
        if accepted then
            tie(message, from, to)
        end
    end
    return messages[key]
end

-- TvbRange:raw() of Wireshark 3.4 begins where the packet does.
local function bytes_of(range)
    return range:bytes():raw()
end

local function printable(text)
    return (text:gsub("%z$", ""):gsub("[^\32-\126]", "."))
end

local HEARTBEAT_VALUES = {
    { "sequence", field.hb_sequence },
    { "interval", field.hb_interval },
    { "count", field.hb_count },
}

local function show_payload(message, range, tree)
    tree:add(field.payload, range)
    local payload = bytes_of(range)
    if message.kind < 4 then
        tree:add(field.text, range, printable(payload))
        return
    end
    for _, value in ipairs(HEARTBEAT_VALUES) do
        local number = payload:match(value[1] .. ":(%-?%d+)}")
        if number then
            tree:add(value[2], range, tonumber(number))
        end
    end
end

local function show_links(message, tree)
    if message.answer then
        tree:add(field.answer_in, message.answer.number):set_generated()
    end
    if message.asked then
        tree:add(field.answer_to, message.asked.number):set_generated()
        tree:add(field.time, message.time - message.asked.time):set_generated()
    end
    if message.gap then
        tree:add_proto_expert_info(expert.gap, message.gap)
    end
    if message.taken and message.taken ~= message.kind then
        tree:add_proto_expert_info(expert.tag,
            "The payload holds a tag: the receiver takes it for a " .. KINDS[message.taken])
    end
end

-- A packet's line shows all its messages: Wireshark keeps the earlier text, so assigning appends.
local function show_info(pinfo, text)
    pinfo.cols.info = text .. "  "
end

local function show_message(message, range, pinfo, tree)
    local info = KINDS[message.kind]
    tree:add(field.kind, range(0, message.url_at or range:len()), message.kind)
    if message.kind == UNKNOWN then
        tree:add_proto_expert_info(expert.message, "Not a message: the receiver drops it")
    end
    if message.sequence then
        tree:add(field.sequence, range(0, message.digits), message.sequence)
        info = info .. " " .. message.sequence
    end
    if message.url_size and message.url_size > 0 then
        local url = range(message.url_at, message.url_size)
        tree:add(field.url, url, printable(bytes_of(url)))
        info = info .. " " .. printable(bytes_of(url))
    end
    if message.payload_at and message.payload_at < range:len() then
        local payload = range(message.payload_at)
        show_payload(message, payload, tree)
        info = string.format("%s %q", info, printable(bytes_of(payload):sub(1, 60)))
    elseif message.kind ~= UNKNOWN and not message.payload_at then
        tree:add_proto_expert_info(expert.message, "No payload marker")
    end
    show_links(message, tree)
    tree:append_text(": " .. info)
    show_info(pinfo, info .. (message.gap and " [gap]" or ""))
end

local function bad_frame(pinfo, tree, what)
    tree:add_proto_expert_info(expert.frame, what .. ": the receiver closes the connection")
    show_info(pinfo, what)
end

local function dissect_frame(tvb, pinfo, tree)
    local item = tree:add(proto, tvb())
    if tvb:raw(0, #WATERMARK) ~= WATERMARK then
        bad_frame(pinfo, item, "No watermark")
    else
        local length = tvb(32, 4)
        item:add(field.length, length)
        if length:uint() == 0 or length:uint() > MAX_SEQUENCE then
            bad_frame(pinfo, item, "Refused length")
        elseif tvb:len() > HEADER_SIZE then
            local range = tvb(HEADER_SIZE)
            show_message(message_of(tvb, pinfo, bytes_of(range)), range, pinfo, item)
        end
    end
    return tvb:len()
end

-- The size of the frame at offset; a bad frame extends to the end of the segment.
local function frame_size(tvb, _, offset)
    if tvb:raw(offset, #WATERMARK) ~= WATERMARK then
        return tvb:len() - offset
    end
    local length = tvb(offset + 32, 4):uint()
    return HEADER_SIZE + (length > MAX_SEQUENCE and 0 or length)
end

function proto.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "tolvane"
    dissect_tcp_pdus(tvb, tree, HEADER_SIZE, frame_size, dissect_frame)
    return tvb:len()
end

-- A connection is tolvane's from the first segment that begins with the watermark.
proto:register_heuristic("tcp", function(tvb, pinfo, tree)
    local size = math.min(tvb:len(), #WATERMARK)
    if size < 8 or tvb:raw(0, size) ~= WATERMARK:sub(1, size) then
        return false
    end
    pinfo.conversation = proto
    proto.dissector(tvb, pinfo, tree)
    return true
end)
