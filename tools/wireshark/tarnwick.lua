-- Wireshark dissector for the tarnwick message protocol.
--
-- Every message is a 32-byte header of eight unsigned 32-bit words in
-- network order (agentid, ACT, size, type, flags, magic, state, reserved),
-- followed by `size` bytes of payload: an XML "message" document and one
-- zero byte when the message is formatted, opaque bytes when the binary
-- flag is set. A header whose words are all in little-endian order (the
-- magic reads 01 02 06 00) is shown too, with a warning: the library's
-- receiver on a little-endian host accepts it.
--
-- Use it with
--   wireshark -X lua_script:tools/wireshark/tarnwick.lua
--   tshark -2 -X lua_script:tools/wireshark/tarnwick.lua -r CAPTURE
-- or copy it into the personal Lua plugins folder
-- (~/.local/lib/wireshark/plugins/).
--
-- It decodes TCP port 7777 (the port of the demo agent in the README; the
-- preference "tarnwick.tcp_port" changes it) and any TCP conversation whose
-- first segment starts with a header that carries the magic (a heuristic
-- dissector, "tarnwick_tcp"; also of decrypted TLS data, "tarnwick_tls").
-- The heuristic needs the first 24 bytes of a header in one segment: for a
-- peer that writes its header in smaller pieces, set the port.
-- A message that spans segments is reassembled
-- before it is shown; several messages in one segment are all shown.
--
-- A request (result flag clear) and its reply (result flag set) carry the
-- same token (ACT); the dissector matches them within a TCP connection and
-- shows "Reply in" on the request and "Request in" on the reply. tshark
-- shows "Reply in" only with two passes (-2).
--
-- Fields (for display filters and tshark -T fields -e ...):
--   tarnwick.agentid, tarnwick.act, tarnwick.size, tarnwick.type,
--   tarnwick.flags (tarnwick.flags.result, .binary, .error, .broadcast,
--   .unused), tarnwick.magic, tarnwick.state, tarnwick.reserved,
--   tarnwick.event (the event type's name), tarnwick.kind ("request" or
--   "reply"), tarnwick.arg (an argument's name), tarnwick.arg.value,
--   tarnwick.member and tarnwick.member.value (the arguments of a group),
--   tarnwick.payload (binary payload), tarnwick.reply_in,
--   tarnwick.request_in.

local MAGIC = 0x00060201
local HEADER_SIZE = 32
local DEFAULT_PORT = 7777
-- The largest payload the library accepts by default (2 GiB); a header
-- that announces more is not reassembled.
local MAX_SIZE = 0x80000000

-- The event types by number, named as the library's event classes.
local EVENT_NAMES = {
    [1] = "IdentityEvent",
    [2] = "ErrorEvent",
    [3] = "DirListEvent",
    [4] = "DownloadEvent",
    [5] = "UploadEvent",
    [6] = "StartProcessEvent",
    [7] = "StopProcessEvent",
    [8] = "StatusProcessEvent",
    [9] = "OutputProcessEvent",
    [10] = "ListSessionsEvent",
    [11] = "KickEvent",
    [12] = "GetJobLogEvent",
    [13] = "StopJobEvent",
    [14] = "ReloadEvent",
    [15] = "HeartBeatEvent",
    [16] = "WorkflowActionEvent",
    [17] = "GetVersionEvent",
    [18] = "SetDebugEvent",
    [19] = "JobStepProgressEvent",
}

local FLAG_UNUSED = 0x01
local FLAG_RESULT = 0x02
local FLAG_BINARY = 0x04
local FLAG_ERROR = 0x08
local FLAG_BROADCAST = 0x10

local tarnwick = Proto("tarnwick", "Tarnwick message protocol")

local pf = {
    agentid = ProtoField.uint32("tarnwick.agentid", "Agent ID", base.DEC),
    act = ProtoField.uint32("tarnwick.act", "Token (ACT)", base.DEC_HEX),
    size = ProtoField.uint32("tarnwick.size", "Payload size", base.DEC),
    type = ProtoField.uint32("tarnwick.type", "Event type", base.DEC, EVENT_NAMES),
    flags = ProtoField.uint32("tarnwick.flags", "Flags", base.HEX),
    flag_unused = ProtoField.bool("tarnwick.flags.unused", "Unused", 32, nil, FLAG_UNUSED),
    flag_result = ProtoField.bool("tarnwick.flags.result", "Result", 32,
                                  {"Reply", "Request"}, FLAG_RESULT),
    flag_binary = ProtoField.bool("tarnwick.flags.binary", "Binary", 32,
                                  {"Binary payload", "Formatted (XML) payload"}, FLAG_BINARY),
    flag_error = ProtoField.bool("tarnwick.flags.error", "Error", 32, nil, FLAG_ERROR),
    flag_broadcast = ProtoField.bool("tarnwick.flags.broadcast", "Broadcast", 32, nil,
                                     FLAG_BROADCAST),
    magic = ProtoField.uint32("tarnwick.magic", "Magic", base.HEX),
    state = ProtoField.uint32("tarnwick.state", "State", base.DEC),
    reserved = ProtoField.uint32("tarnwick.reserved", "Reserved", base.HEX),
    event = ProtoField.string("tarnwick.event", "Event"),
    kind = ProtoField.string("tarnwick.kind", "Kind"),
    payload = ProtoField.bytes("tarnwick.payload", "Binary payload"),
    xml = ProtoField.string("tarnwick.xml", "XML payload"),
    terminator = ProtoField.uint8("tarnwick.terminator", "Terminating zero byte", base.HEX),
    args = ProtoField.none("tarnwick.args", "Arguments"),
    arg = ProtoField.string("tarnwick.arg", "Argument"),
    arg_value = ProtoField.string("tarnwick.arg.value", "Value"),
    member = ProtoField.string("tarnwick.member", "Member"),
    member_value = ProtoField.string("tarnwick.member.value", "Value"),
    reply_in = ProtoField.framenum("tarnwick.reply_in", "Reply in", base.NONE, frametype.RESPONSE),
    request_in = ProtoField.framenum("tarnwick.request_in", "Request in", base.NONE,
                                     frametype.REQUEST),
}
tarnwick.fields = {
    pf.agentid, pf.act, pf.size, pf.type, pf.flags, pf.flag_unused, pf.flag_result,
    pf.flag_binary, pf.flag_error, pf.flag_broadcast, pf.magic, pf.state, pf.reserved,
    pf.event, pf.kind, pf.payload, pf.xml, pf.terminator, pf.args, pf.arg, pf.arg_value,
    pf.member, pf.member_value,
    pf.reply_in, pf.request_in,
}

local ef = {
    bad_magic = ProtoExpert.new("tarnwick.bad_magic", "Invalid message header (wrong magic)",
                                expert.group.MALFORMED, expert.severity.ERROR),
    too_large = ProtoExpert.new("tarnwick.too_large", "Payload size over the 2 GiB limit",
                                expert.group.MALFORMED, expert.severity.ERROR),
    little_endian = ProtoExpert.new("tarnwick.little_endian",
                                    "Header in little-endian order, not network order",
                                    expert.group.PROTOCOL, expert.severity.WARN),
    no_terminator = ProtoExpert.new("tarnwick.no_terminator",
                                    "Formatted payload does not end with a zero byte",
                                    expert.group.PROTOCOL, expert.severity.WARN),
}
tarnwick.experts = {ef.bad_magic, ef.too_large, ef.little_endian, ef.no_terminator}

tarnwick.prefs.tcp_port = Pref.uint("TCP port", DEFAULT_PORT,
                                    "The TCP port that is decoded as this protocol")

local tcp_stream_field = Field.new("tcp.stream")
local xml_dissector = Dissector.get("xml")

-- Requests and replies by connection and token, filled on the first pass:
-- transactions["STREAM/TOKEN"] is the exchange under way for that token,
-- and by_frame["FRAME/TOKEN/KIND"] the exchange that a message of a frame
-- belongs to, so that later passes show the same pairs.
local transactions = {}
local by_frame = {}
-- The frame of the first message of each TCP connection: a segment after it
-- that starts without the magic is an invalid header, one before it (a
-- capture that began in the middle of a message) is left alone.
local first_message = {}

function tarnwick.init()
    transactions = {}
    by_frame = {}
    first_message = {}
end

local function event_name(type_number)
    return EVENT_NAMES[type_number] or ("type " .. type_number)
end

local function stream_key()
    local stream = tcp_stream_field()
    return stream and tostring(stream.value) or "?"
end

-- The exchange (a table with `request` and `reply` frame numbers) that the
-- message belongs to.
local function track(pinfo, token, is_reply)
    local frame_key = pinfo.number .. "/" .. token .. "/" .. (is_reply and "r" or "q")
    local exchange = by_frame[frame_key]
    if exchange ~= nil or pinfo.visited then
        return exchange
    end
    local key = stream_key() .. "/" .. token
    exchange = transactions[key]
    if is_reply then
        if exchange == nil or exchange.reply ~= nil then
            exchange = {}
            transactions[key] = exchange
        end
        exchange.reply = pinfo.number
    else
        -- A token used again after its reply starts a new exchange.
        if exchange == nil or exchange.request ~= nil or exchange.reply ~= nil then
            exchange = {}
            transactions[key] = exchange
        end
        exchange.request = pinfo.number
    end
    by_frame[frame_key] = exchange
    return exchange
end

local ENTITIES = {lt = "<", gt = ">", amp = "&", quot = '"', apos = "'"}

local function utf8_char(code)
    if code < 0x80 then
        return string.char(code)
    elseif code < 0x800 then
        return string.char(0xC0 + math.floor(code / 0x40), 0x80 + code % 0x40)
    elseif code < 0x10000 then
        return string.char(0xE0 + math.floor(code / 0x1000), 0x80 + math.floor(code / 0x40) % 0x40,
                           0x80 + code % 0x40)
    end
    return string.char(0xF0 + math.floor(code / 0x40000), 0x80 + math.floor(code / 0x1000) % 0x40,
                       0x80 + math.floor(code / 0x40) % 0x40, 0x80 + code % 0x40)
end

-- `text` with its entity and character references replaced; a reference
-- that is not one is kept as it stands.
local function unescape(text)
    return (text:gsub("&(#?x?)(%w+);", function(kind, body)
        if kind == "" then
            return ENTITIES[body]
        end
        local code
        if kind == "#" then
            code = tonumber(body, 10)
        elseif kind == "#x" then
            code = tonumber(body, 16)
        end
        if code == nil or code > 0x10FFFF then
            return nil
        end
        return utf8_char(code)
    end))
end

-- The top-level "param" elements of a "message" document: a list of
-- {name, value, first, last, members}, with first and last the 1-based
-- positions of the element in `xml`. A group (a parameter with nested
-- parameters) has no value; its nested parameters are its members, as a
-- list of the same kind with positions in `xml`.
local function top_level_params(xml, base)
    base = base or 0
    local params = {}
    local depth = 0
    local current
    local pos = 1
    while true do
        local s, e, closing, attrs = xml:find("<(/?)param([^>]*)>", pos)
        if s == nil then
            break
        end
        local empty = closing == "" and attrs:sub(-1) == "/"
        if attrs ~= "" and not attrs:find("^[%s/]") then
            -- Another element whose name begins with "param".
        elseif closing == "/" then
            depth = depth - 1
            if depth == 0 and current ~= nil then
                if current.group then
                    current.members = top_level_params(xml:sub(current.inner_start, s - 1),
                                                       base + current.inner_start - 1)
                else
                    current.value = unescape(xml:sub(current.inner_start, s - 1))
                end
                current.last = base + e
                params[#params + 1] = current
                current = nil
            end
        else
            local name = attrs:match('name%s*=%s*"([^"]*)"') or attrs:match("name%s*=%s*'([^']*)'")
            if depth == 0 then
                current = {name = unescape(name or ""), first = base + s}
                if empty then
                    current.value = ""
                    current.last = base + e
                    params[#params + 1] = current
                    current = nil
                else
                    current.inner_start = e + 1
                end
            elseif current ~= nil then
                current.group = true
            end
            if not empty then
                depth = depth + 1
            end
        end
        pos = e + 1
    end
    return params
end

local function add_payload(tvb, pinfo, tree, offset, size, binary)
    if size == 0 then
        return
    end
    local payload = tvb(offset, size)
    if binary then
        tree:add(pf.payload, payload)
        return
    end
    -- Formatted: the XML text, then one zero byte that the size counts.
    local text_len = size
    if tvb(offset + size - 1, 1):uint() == 0 then
        text_len = size - 1
    end
    if text_len > 0 then
        local xml_range = tvb(offset, text_len)
        local raw = xml_range:raw()
        local params = top_level_params(raw)
        local args_tree = tree:add(pf.args, xml_range)
        args_tree:append_text(": " .. #params)
        local function range_of(param)
            return tvb(offset + param.first - 1, param.last - param.first + 1)
        end
        for _, param in ipairs(params) do
            local item = args_tree:add(pf.arg, range_of(param), param.name)
            if param.value ~= nil then
                item:append_text(" = " .. param.value)
                item:add(pf.arg_value, range_of(param), param.value)
            end
            for _, member in ipairs(param.members or {}) do
                local member_item = item:add(pf.member, range_of(member), member.name)
                if member.value ~= nil then
                    member_item:append_text(" = " .. member.value)
                    member_item:add(pf.member_value, range_of(member), member.value)
                end
            end
        end
        xml_dissector:call(xml_range:tvb(), pinfo, tree)
    end
    if text_len == size then
        tree:add_proto_expert_info(ef.no_terminator)
    else
        tree:add(pf.terminator, tvb(offset + text_len, 1))
    end
end

-- The byte order of the header at `offset`: false for network order (the
-- magic reads 00 06 02 01), true for little-endian order (01 02 06 00: the
-- library's receiver on a little-endian host takes such a header as one in
-- its own order), nil for no header.
local function byte_order(tvb, offset)
    local magic = tvb(offset + 20, 4)
    if magic:uint() == MAGIC then
        return false
    elseif magic:le_uint() == MAGIC then
        return true
    end
    return nil
end

-- Shows the message whose header starts at `offset` (whole in `tvb`).
-- Returns a line for the Info column.
local function dissect_message(tvb, pinfo, tree, offset, little_endian)
    local function word(at)
        local range = tvb(offset + at, 4)
        return little_endian and range:le_uint() or range:uint()
    end
    local token = word(4)
    local size = word(8)
    local type_number = word(12)
    local flags = word(16)
    local is_reply = bit.band(flags, FLAG_RESULT) ~= 0
    local binary = bit.band(flags, FLAG_BINARY) ~= 0
    local name = event_name(type_number)
    local kind = is_reply and "reply" or "request"

    local msg = tree:add(tarnwick, tvb(offset, HEADER_SIZE + size))
    msg:append_text(string.format(", %s %s, token %u", name, kind, token))

    -- Adds a header word in the message's byte order.
    local function add_word(parent, field, at)
        if little_endian then
            return parent:add_le(field, tvb(offset + at, 4))
        end
        return parent:add(field, tvb(offset + at, 4))
    end
    if little_endian then
        msg:add_proto_expert_info(ef.little_endian)
    end
    add_word(msg, pf.agentid, 0)
    add_word(msg, pf.act, 4)
    add_word(msg, pf.size, 8)
    add_word(msg, pf.type, 12)
    local flags_item = add_word(msg, pf.flags, 16)
    local flag_names = {}
    if is_reply then
        flag_names[#flag_names + 1] = "result"
    end
    if binary then
        flag_names[#flag_names + 1] = "binary"
    end
    if bit.band(flags, FLAG_ERROR) ~= 0 then
        flag_names[#flag_names + 1] = "error"
    end
    if bit.band(flags, FLAG_BROADCAST) ~= 0 then
        flag_names[#flag_names + 1] = "broadcast"
    end
    if #flag_names > 0 then
        flags_item:append_text(" (" .. table.concat(flag_names, ", ") .. ")")
    end
    add_word(flags_item, pf.flag_result, 16)
    add_word(flags_item, pf.flag_binary, 16)
    add_word(flags_item, pf.flag_error, 16)
    add_word(flags_item, pf.flag_broadcast, 16)
    add_word(flags_item, pf.flag_unused, 16)
    add_word(msg, pf.magic, 20)
    add_word(msg, pf.state, 24)
    add_word(msg, pf.reserved, 28)
    msg:add(pf.event, tvb(offset + 12, 4), name):set_generated()
    msg:add(pf.kind, tvb(offset + 16, 4), kind):set_generated()

    local exchange = track(pinfo, token, is_reply)
    if exchange ~= nil then
        if is_reply then
            if exchange.request ~= nil then
                msg:add(pf.request_in, exchange.request):set_generated()
            end
        elseif exchange.reply ~= nil then
            msg:add(pf.reply_in, exchange.reply):set_generated()
        end
    end

    add_payload(tvb, pinfo, msg, offset + HEADER_SIZE, size, binary)
    return string.format("%s %s token=%u", name, kind, token)
end

function tarnwick.dissector(tvb, pinfo, tree)
    local length = tvb:len()
    local offset = 0
    local infos = {}
    while offset < length do
        local remaining = length - offset
        -- The magic is checked as soon as it is there, the rest of the
        -- header waited for.
        local little_endian
        if remaining >= 24 then
            little_endian = byte_order(tvb, offset)
        end
        if remaining >= 24 and little_endian == nil then
            local first = first_message[stream_key()]
            if offset == 0 and (first == nil or pinfo.number <= first) then
                -- Not the start of a message: leave the bytes to others.
                return 0
            end
            local item = tree:add(tarnwick, tvb(offset))
            item:add_proto_expert_info(ef.bad_magic)
            infos[#infos + 1] = "invalid header"
            offset = length
            break
        end
        if remaining < HEADER_SIZE then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local size_range = tvb(offset + 8, 4)
        local size = little_endian and size_range:le_uint() or size_range:uint()
        if size > MAX_SIZE then
            local item = tree:add(tarnwick, tvb(offset))
            item:add(pf.size, size_range, size)
            item:add_proto_expert_info(ef.too_large)
            infos[#infos + 1] = "payload size over the limit"
            offset = length
            break
        end
        if remaining < HEADER_SIZE + size then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = HEADER_SIZE + size - remaining
            break
        end
        infos[#infos + 1] = dissect_message(tvb, pinfo, tree, offset, little_endian)
        if not pinfo.visited then
            local stream = stream_key()
            if first_message[stream] == nil then
                first_message[stream] = pinfo.number
            end
        end
        offset = offset + HEADER_SIZE + size
    end
    if #infos > 0 then
        pinfo.cols.protocol:set("Tarnwick")
        pinfo.cols.info:set(table.concat(infos, ", "))
    end
    return length
end

local function heuristic(tvb, pinfo, tree)
    if tvb:len() < 24 or byte_order(tvb, 0) == nil then
        return false
    end
    pinfo.conversation = tarnwick
    tarnwick.dissector(tvb, pinfo, tree)
    return true
end
tarnwick:register_heuristic("tcp", heuristic)
-- Decrypted TLS data, when Wireshark has the session keys.
tarnwick:register_heuristic("tls", heuristic)

local tcp_port_table = DissectorTable.get("tcp.port")
local registered_port = 0

local function register_port()
    if registered_port ~= 0 then
        tcp_port_table:remove(registered_port, tarnwick)
    end
    registered_port = tarnwick.prefs.tcp_port
    if registered_port ~= 0 then
        tcp_port_table:add(registered_port, tarnwick)
    end
end

function tarnwick.prefs_changed()
    if registered_port ~= tarnwick.prefs.tcp_port then
        register_port()
    end
end

register_port()
