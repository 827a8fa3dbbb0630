-- Wireshark and tshark dissector for weft traffic:
--   * WEFT messages over TCP, each behind a 2-byte little-endian length;
--   * EUDP datagrams over UDP, whose CMD payload holds one WEFT message.
--
-- Load it with `tshark -X lua_script:tools/wireshark/weft.lua ...`, or copy it
-- into the personal Lua plugins folder (see README.md beside this file).
--
-- Every read below is checked against the bytes that are really there first:
-- bad input becomes an expert-info item, never a Lua error.

-- Installed in the plugins folder and given with -X as well, the file would
-- load twice, and the second copy could not register its protocols.
local loaded, existing = pcall(Dissector.get, "weft")
if loaded and existing ~= nil then
    report_failure("weft.lua: a WEFT dissector is already loaded (installed in a plugins folder?); "
        .. "this copy is ignored")
    return
end

local weft = Proto("weft", "WEFT Protocol")
local eudp = Proto("eudp", "EUDP Transport")

local WEFT_VERSION = 1
local WEFT_HEADER_SIZE = 4
local WEFT_MAX_PACKET_SIZE = 1492
local TCP_PREFIX_SIZE = 2
local EUDP_VERSION = 1
local EUDP_HEADER_SIZE = 8
local EUDP_MAX_PACKET_SIZE = 1500
local EUDP_SEQ_MAX = 65534 -- sequence numbers count modulo 65535
local DEFAULT_PORT = 7420 -- the weft tool's port

local WEFT_COMMANDS = {
    [0x46] = "function call",
    [0x53] = "subscribe",
    [0x54] = "trigger",
    [0x55] = "state update",
    [0x58] = "unsubscribe",
}

local TAG_INT, TAG_BOOL, TAG_FLOAT, TAG_STRING, TAG_NONE = 0x49, 0x42, 0x46, 0x53, 0x4E

local VALUE_TYPES = {
    [TAG_NONE] = "empty",
    [TAG_INT] = "integer",
    [TAG_BOOL] = "boolean",
    [TAG_FLOAT] = "float",
    [TAG_STRING] = "string",
}

-- Wire order of the ten EUDP commands; a received name matching none is unknown.
local EUDP_COMMANDS = {
    NOP = "keep-alive answer",
    ACK = "acknowledgement",
    NAK = "negative acknowledgement",
    CON = "connection request",
    DIS = "disconnection",
    CMD = "data",
    MOD = "mode request",
    MAK = "mode answer",
    WIN = "window request",
    WAK = "window answer",
}
local SEQ_COMMANDS = { ACK = true, NAK = true, CON = true, DIS = true, CMD = true }

local MODE_LETTERS = {
    [0x54] = "realtime",
    [0x52] = "reliable",
    [0x44] = "don't care",
}

---------------------------------------------------------------------------
-- Fields

local hf = {
    tcp_length = ProtoField.uint16("weft.tcp_length", "Message length", base.DEC, nil, nil,
        "Length prefix in front of the message on the TCP stream"),
    version = ProtoField.uint8("weft.version", "Version", base.DEC),
    command = ProtoField.char("weft.command", "Command", base.HEX, WEFT_COMMANDS),
    command_name = ProtoField.string("weft.command_name", "Command name"),
    length = ProtoField.uint16("weft.length", "Payload length", base.DEC),
    name = ProtoField.string("weft.name", "Name", base.UNICODE,
        "Item name or function identifier"),
    value = ProtoField.none("weft.value", "Value"),
    value_type = ProtoField.char("weft.value.type", "Type", base.HEX, VALUE_TYPES),
    value_int = ProtoField.int32("weft.value.int", "Integer", base.DEC),
    value_float = ProtoField.float("weft.value.float", "Float"),
    value_bool = ProtoField.bool("weft.value.bool", "Boolean"),
    value_string = ProtoField.string("weft.value.string", "String", base.UNICODE),
    value_text = ProtoField.string("weft.value.text", "Text", base.UNICODE,
        "The value as the library prints it"),
    list = ProtoField.none("weft.list", "Parameter list"),
    list_count = ProtoField.uint8("weft.list.count", "Entries", base.DEC),
    param = ProtoField.none("weft.param", "Parameter"),
    param_name = ProtoField.string("weft.param.name", "Name", base.UNICODE),
    data = ProtoField.bytes("weft.data", "Data"),
    summary = ProtoField.string("weft.summary", "Summary", base.UNICODE),
}
weft.fields = {
    hf.tcp_length, hf.version, hf.command, hf.command_name, hf.length, hf.name,
    hf.value, hf.value_type, hf.value_int, hf.value_float, hf.value_bool,
    hf.value_string, hf.value_text, hf.list, hf.list_count, hf.param,
    hf.param_name, hf.data, hf.summary,
}

local ef = {
    version = ProtoField.uint8("eudp.version", "Version", base.DEC),
    command = ProtoField.string("eudp.command", "Command"),
    command_desc = ProtoField.string("eudp.command_desc", "Meaning"),
    arg = ProtoField.uint32("eudp.arg", "Argument", base.DEC),
    seq = ProtoField.uint32("eudp.seq", "Sequence number", base.DEC),
    modes = ProtoField.string("eudp.modes", "Mode bytes"),
    mode_send_asked = ProtoField.char("eudp.mode.send_asked", "Send mode asked", base.HEX, MODE_LETTERS),
    mode_send = ProtoField.char("eudp.mode.send", "Send mode in force", base.HEX, MODE_LETTERS),
    mode_recv_asked = ProtoField.char("eudp.mode.recv_asked", "Receive mode asked", base.HEX, MODE_LETTERS),
    mode_recv = ProtoField.char("eudp.mode.recv", "Receive mode in force", base.HEX, MODE_LETTERS),
    window = ProtoField.uint32("eudp.window", "Window size", base.DEC),
    payload_length = ProtoField.uint16("eudp.payload_length", "Payload length", base.DEC),
    payload = ProtoField.bytes("eudp.payload", "Payload"),
    keepalive = ProtoField.none("eudp.keepalive", "Keep-alive (data packet without payload)"),
    summary = ProtoField.string("eudp.summary", "Summary", base.UNICODE),
}
eudp.fields = {
    ef.version, ef.command, ef.command_desc, ef.arg, ef.seq, ef.modes,
    ef.mode_send_asked, ef.mode_send, ef.mode_recv_asked, ef.mode_recv,
    ef.window, ef.payload_length, ef.payload, ef.keepalive, ef.summary,
}

---------------------------------------------------------------------------
-- Expert infos: errors are what the library's receiver rejects, warnings
-- what it accepts or ignores although no library peer sends it.

local MALFORMED, PROTOCOL = expert.group.MALFORMED, expert.group.PROTOCOL
local ERROR, WARN, NOTE = expert.severity.ERROR, expert.severity.WARN, expert.severity.NOTE

local ex = {
    bad_version = ProtoExpert.new("weft.bad_version", "Wrong version", MALFORMED, ERROR),
    short_header = ProtoExpert.new("weft.short_header", "Header too short", MALFORMED, ERROR),
    bad_size = ProtoExpert.new("weft.bad_size", "Wrong size", MALFORMED, ERROR),
    unterminated = ProtoExpert.new("weft.unterminated", "Unterminated string", MALFORMED, ERROR),
    truncated = ProtoExpert.new("weft.truncated", "Truncated value", MALFORMED, ERROR),
    unknown_command = ProtoExpert.new("weft.unknown_command", "Unknown command", MALFORMED, ERROR),
    unknown_type = ProtoExpert.new("weft.unknown_type", "Unknown value type", PROTOCOL, WARN),
    trailing = ProtoExpert.new("weft.trailing", "Bytes after the last item", PROTOCOL, WARN),
    too_long = ProtoExpert.new("weft.too_long", "Message longer than the largest WEFT message", PROTOCOL, WARN),
    empty = ProtoExpert.new("weft.empty", "Empty message", PROTOCOL, NOTE),
    duplicate = ProtoExpert.new("weft.duplicate", "Parameter name repeated", PROTOCOL, NOTE),
    cut_short = ProtoExpert.new("weft.cut_short", "Captured bytes cut short", PROTOCOL, NOTE),
}
weft.experts = {
    ex.bad_version, ex.short_header, ex.bad_size, ex.unterminated, ex.truncated,
    ex.unknown_command, ex.unknown_type, ex.trailing, ex.too_long, ex.empty, ex.duplicate, ex.cut_short,
}

local eex = {
    bad_version = ProtoExpert.new("eudp.bad_version", "Wrong version", MALFORMED, ERROR),
    short_header = ProtoExpert.new("eudp.short_header", "Header too short", MALFORMED, ERROR),
    unknown_command = ProtoExpert.new("eudp.unknown_command", "Unknown command", MALFORMED, ERROR),
    bad_mode = ProtoExpert.new("eudp.bad_mode", "Unknown mode byte", PROTOCOL, WARN),
    seq_range = ProtoExpert.new("eudp.seq_range", "Sequence number out of range", PROTOCOL, WARN),
    stray_payload = ProtoExpert.new("eudp.stray_payload", "Payload on a control packet", PROTOCOL, WARN),
    too_long = ProtoExpert.new("eudp.too_long", "Datagram longer than 1500 bytes", PROTOCOL, WARN),
    cut_short = ProtoExpert.new("eudp.cut_short", "Captured bytes cut short", PROTOCOL, NOTE),
}
eudp.experts = {
    eex.bad_version, eex.short_header, eex.unknown_command, eex.bad_mode,
    eex.seq_range, eex.stray_payload, eex.too_long, eex.cut_short,
}

---------------------------------------------------------------------------
-- Text helpers

-- Control bytes would garble a one-line summary; show them as \xNN.
local function printable(s)
    return (s:gsub("[%z\1-\31\127]", function(c)
        return string.format("\\x%02X", c:byte())
    end))
end

-- A command or mode letter for a summary: the letter, or its code in hex.
local function letter(code)
    if code >= 0x21 and code <= 0x7E then
        return string.char(code)
    end
    return string.format("0x%02X", code)
end

-- Floats print like a default C++ stream: %g with 6 significant digits.
local function float_text(x)
    if x ~= x then
        return "nan"
    end
    return string.format("%g", x)
end

-- Reads text from a range as UTF-8; invalid sequences become U+FFFD.
local function text_of(tvb, offset, length)
    if length <= 0 then
        return ""
    end
    return tvb:range(offset, length):string(ENC_UTF_8)
end

-- Finds the NUL that ends a string starting at `offset`, looking no further
-- than `limit`; returns its offset, or nil.
local function find_nul(tvb, offset, limit)
    if offset >= limit then
        return nil
    end
    local raw = tvb:raw(offset, limit - offset)
    local at = raw:find("\0", 1, true)
    if at == nil then
        return nil
    end
    return offset + at - 1
end

---------------------------------------------------------------------------
-- WEFT message decoding

-- Decodes one value form at `offset` (the message ends at `limit`) into a
-- subtree. Returns the bytes consumed (0 when the form is broken), the
-- value's text as the library prints it (nil when broken), its type tag and,
-- when broken, the kind of fault for the summary.
local function decode_value(tvb, offset, limit, tree, label)
    local left = limit - offset
    if left <= 0 then
        local item = tree:add(hf.value, tvb:range(math.max(0, limit - 1), limit > 0 and 1 or 0))
        item:set_text(label .. ": missing")
        item:add_proto_expert_info(ex.truncated, "Truncated value: no bytes left for the value")
        return 0, nil, nil, "truncated value"
    end
    local tag = tvb:range(offset, 1):uint()
    local need, text
    if tag == TAG_INT or tag == TAG_FLOAT then
        need = 5
    elseif tag == TAG_BOOL then
        need = 2
    elseif tag == TAG_STRING then
        local nul = find_nul(tvb, offset + 1, limit)
        if nul == nil then
            local item = tree:add(hf.value, tvb:range(offset, left))
            item:set_text(label .. ": unterminated string")
            item:add(hf.value_type, tvb:range(offset, 1))
            item:add_proto_expert_info(ex.unterminated,
                "Unterminated string: no zero byte in the " .. left .. " bytes left")
            return 0, nil, tag, "unterminated string"
        end
        need = nul - offset + 1
    else
        need = 1
    end

    if left < need then
        local item = tree:add(hf.value, tvb:range(offset, left))
        item:set_text(label .. ": truncated " .. VALUE_TYPES[tag])
        item:add(hf.value_type, tvb:range(offset, 1))
        item:add_proto_expert_info(ex.truncated, string.format(
            "Truncated value: %s needs %d bytes, %d left", VALUE_TYPES[tag], need, left))
        return 0, nil, tag, "truncated value"
    end

    local item = tree:add(hf.value, tvb:range(offset, need))
    item:add(hf.value_type, tvb:range(offset, 1))
    local data = offset + 1
    if tag == TAG_INT then
        local v = tvb:range(data, 4):le_int()
        item:add_le(hf.value_int, tvb:range(data, 4))
        text = string.format("%d", v)
    elseif tag == TAG_FLOAT then
        local v = tvb:range(data, 4):le_float()
        item:add_le(hf.value_float, tvb:range(data, 4))
        text = float_text(v)
    elseif tag == TAG_BOOL then
        local v = tvb:range(data, 1):uint() ~= 0
        item:add(hf.value_bool, tvb:range(data, 1), v)
        text = v and "ON" or "OFF"
    elseif tag == TAG_STRING then
        text = text_of(tvb, data, need - 2)
        item:add(hf.value_string, tvb:range(data, need - 1), text)
    else
        text = "INV"
        if tag ~= TAG_NONE then
            item:add_proto_expert_info(ex.unknown_type, string.format(
                "Unknown value type %s: read as an empty value", letter(tag)))
        end
    end
    item:add(hf.value_text, tvb:range(offset, need), text):set_generated()
    local kind = VALUE_TYPES[tag] or ("unknown type " .. letter(tag))
    item:set_text(string.format("%s: %s (%s)", label, printable(text), kind))
    return need, text, tag
end

-- Decodes a string item (name or function identifier). Returns the bytes
-- consumed (0 when there is no terminating zero) and the text.
local function decode_name(tvb, offset, limit, tree, field)
    local nul = find_nul(tvb, offset, limit)
    if nul == nil then
        local left = math.max(0, limit - offset)
        local item
        if left > 0 then
            item = tree:add(field, tvb:range(offset, left), text_of(tvb, offset, left))
        else
            item = tree:add(field, tvb:range(math.max(0, limit - 1), limit > 0 and 1 or 0), "")
        end
        item:append_text(" (unterminated)")
        item:add_proto_expert_info(ex.unterminated, "Unterminated string: no zero byte in the "
            .. left .. " bytes left")
        return 0, nil
    end
    local text = text_of(tvb, offset, nul - offset)
    tree:add(field, tvb:range(offset, nul - offset + 1), text)
    return nul - offset + 1, text
end

-- Decodes a parameter list form. Returns bytes consumed (0 when broken), the
-- entries' summary text and, when broken, the kind of fault.
local function decode_list(tvb, offset, limit, tree)
    if offset >= limit then
        local item = tree:add(hf.list, tvb:range(math.max(0, limit - 1), limit > 0 and 1 or 0))
        item:set_text("Parameter list: missing")
        item:add_proto_expert_info(ex.truncated, "Truncated value: no bytes left for the parameter list")
        return 0, "", "truncated value"
    end
    local count = tvb:range(offset, 1):uint()
    local list = tree:add(hf.list, tvb:range(offset, limit - offset))
    list:add(hf.list_count, tvb:range(offset, 1))
    local parts, seen = {}, {}
    local pos = offset + 1
    for i = 1, count do
        local nul = find_nul(tvb, pos, limit)
        if nul == nil then
            local left = limit - pos
            local item = list:add(hf.param, tvb:range(math.min(pos, limit - 1), left > 0 and left or 1))
            item:set_text(string.format("Parameter %d of %d: unterminated name", i, count))
            item:add_proto_expert_info(ex.unterminated, string.format(
                "Unterminated string: entry %d of %d has no name ending in the %d bytes left", i, count, left))
            parts[#parts + 1] = "?"
            list:set_len(limit - offset)
            list:set_text(string.format("Parameter list (%d entries, broken)", count))
            return 0, table.concat(parts, " "), "unterminated string"
        end
        local name = text_of(tvb, pos, nul - pos)
        local entry = list:add(hf.param, tvb:range(pos, limit - pos))
        entry:add(hf.param_name, tvb:range(pos, nul - pos + 1), name)
        local used, text, tag, fault = decode_value(tvb, nul + 1, limit, entry, "Value")
        if used == 0 then
            entry:set_text(string.format("Parameter: %s = ?", printable(name)))
            parts[#parts + 1] = name .. " = ?"
            list:set_text(string.format("Parameter list (%d entries, broken)", count))
            return 0, table.concat(parts, " "), fault
        end
        if tag == TAG_STRING then
            text = '"' .. text .. '"'
        end
        entry:set_len(nul + 1 + used - pos)
        entry:set_text(string.format("Parameter: %s = %s", printable(name), printable(text)))
        if seen[name] then
            entry:add_proto_expert_info(ex.duplicate, "Parameter name repeated: the receiver keeps the later value")
        end
        seen[name] = true
        parts[#parts + 1] = name .. " = " .. text
        pos = nul + 1 + used
    end
    list:set_len(pos - offset)
    list:set_text(string.format("Parameter list (%d %s)", count, count == 1 and "entry" or "entries"))
    return pos - offset, table.concat(parts, " ")
end

-- Decodes one whole WEFT message that fills `tvb`, adding a "weft" subtree to
-- `tree`. `prefix` is the TCP length prefix range, if any. Returns a one-line
-- summary such as `WEFT T tally = ON`.
local function decode_weft(tvb, pinfo, tree, prefix)
    local size = tvb:len()
    local root = tree:add(weft, tvb:range(0, size))
    if prefix ~= nil then
        root:add_le(hf.tcp_length, prefix)
    end
    local problems = {}

    local function finish(summary)
        if #problems > 0 then
            summary = summary .. " [" .. table.concat(problems, ", ") .. "]"
        end
        root:add(hf.summary, tvb:range(0, size), summary):set_generated()
        root:append_text(": " .. summary:sub(6))
        return summary
    end

    local version = tvb:range(0, 1):uint()
    local vitem = root:add(hf.version, tvb:range(0, 1))
    if version ~= WEFT_VERSION then
        vitem:add_proto_expert_info(ex.bad_version, string.format(
            "Wrong version: %d, expected %d", version, WEFT_VERSION))
        if size > 1 then
            root:add(hf.data, tvb:range(1, size - 1))
        end
        problems[1] = "wrong version"
        return finish("WEFT")
    end
    if size < WEFT_HEADER_SIZE then
        root:add_proto_expert_info(ex.short_header, string.format(
            "Header too short: %d bytes, a header has %d", size, WEFT_HEADER_SIZE))
        if size > 1 then
            root:add(hf.data, tvb:range(1, size - 1))
        end
        problems[1] = "header too short"
        return finish("WEFT")
    end

    local cmd = tvb:range(1, 1):uint()
    local cname = WEFT_COMMANDS[cmd]
    root:add(hf.command, tvb:range(1, 1))
    root:add(hf.command_name, tvb:range(1, 1), cname or "unknown"):set_generated()
    local length = tvb:range(2, 2):le_uint()
    local litem = root:add_le(hf.length, tvb:range(2, 2))
    if length + WEFT_HEADER_SIZE ~= size then
        litem:add_proto_expert_info(ex.bad_size, string.format(
            "Wrong size: the header counts %d payload bytes, the message has %d",
            length, size - WEFT_HEADER_SIZE))
        problems[#problems + 1] = "wrong size"
    end
    if size > WEFT_MAX_PACKET_SIZE then
        root:add_proto_expert_info(ex.too_long, string.format(
            "Message longer than the largest WEFT message: %d bytes, at most %d fit",
            size, WEFT_MAX_PACKET_SIZE))
    end

    local summary
    local pos = WEFT_HEADER_SIZE
    if cname == nil then
        root:add_proto_expert_info(ex.unknown_command, string.format(
            "Unknown command %s: the receiver drops the message", letter(cmd)))
        if size > pos then
            root:add(hf.data, tvb:range(pos, size - pos))
        end
        problems[#problems + 1] = "unknown command"
        summary = "WEFT " .. letter(cmd)
        pos = size
    else
        local used, name = decode_name(tvb, pos, size, root, hf.name)
        local shown = name and printable(name) or "?"
        if used == 0 then
            problems[#problems + 1] = "unterminated string"
            summary = "WEFT " .. letter(cmd) .. " ?"
            pos = size
        else
            pos = pos + used
            if cmd == 0x53 or cmd == 0x58 then
                summary = "WEFT " .. letter(cmd) .. " " .. shown
            elseif cmd == 0x54 or cmd == 0x55 then
                local vused, text, _, fault = decode_value(tvb, pos, size, root, "Value")
                if vused == 0 then
                    problems[#problems + 1] = fault
                    summary = "WEFT " .. letter(cmd) .. " " .. shown .. " = ?"
                    pos = size
                else
                    summary = "WEFT " .. letter(cmd) .. " " .. shown .. " = " .. printable(text)
                    pos = pos + vused
                end
            else -- function call
                local lused, entries, fault = decode_list(tvb, pos, size, root)
                summary = "WEFT F " .. shown .. "(" .. printable(entries) .. ")"
                if lused == 0 then
                    problems[#problems + 1] = fault
                    pos = size
                else
                    pos = pos + lused
                end
            end
        end
    end

    if pos < size then
        root:add(hf.data, tvb:range(pos, size - pos)):add_proto_expert_info(ex.trailing, string.format(
            "Bytes after the last item: %d, the receiver ignores them", size - pos))
    end
    return finish(summary)
end

---------------------------------------------------------------------------
-- WEFT over TCP

-- Several messages may end in one segment: the first sets the Info column,
-- the rest are appended to it.
local function show_in_columns(pinfo, proto_name, summary)
    if tostring(pinfo.cols.protocol) == proto_name then
        pinfo.cols.info:append(", " .. summary)
    else
        pinfo.cols.protocol:set(proto_name)
        pinfo.cols.info:clear_fence()
        pinfo.cols.info:set(summary)
    end
end

local function tcp_pdu_length(tvb, pinfo, offset)
    return TCP_PREFIX_SIZE + tvb:range(offset, 2):le_uint()
end

local function dissect_tcp_message(tvb, pinfo, tree)
    local size = tvb:len()
    local summary
    if size < tvb:reported_len() then
        -- The capture kept only part of the message (snapshot length).
        local root = tree:add(weft, tvb:range(0, size))
        root:add_proto_expert_info(ex.cut_short, "Captured bytes cut short: message not decoded")
        summary = "WEFT [cut short]"
        root:add(hf.summary, tvb:range(0, size), summary):set_generated()
    elseif size <= TCP_PREFIX_SIZE then
        -- An empty message: the receiver waits for the next one.
        local root = tree:add(weft, tvb:range(0, size))
        root:add_le(hf.tcp_length, tvb:range(0, math.min(size, 2)))
        root:add_proto_expert_info(ex.empty, "Empty message: the receiver skips it")
        summary = "WEFT (empty)"
        root:add(hf.summary, tvb:range(0, size), summary):set_generated()
        root:append_text(": (empty)")
    else
        summary = decode_weft(tvb:range(TCP_PREFIX_SIZE):tvb(), pinfo, tree, tvb:range(0, 2))
    end
    show_in_columns(pinfo, "WEFT", summary)
    return size
end

function weft.dissector(tvb, pinfo, tree)
    if tvb:len() == 0 then
        return 0
    end
    dissect_tcp_pdus(tvb, tree, TCP_PREFIX_SIZE, tcp_pdu_length, dissect_tcp_message, true)
    return tvb:len()
end

-- Recognises the start of a WEFT stream: length prefix, version 1, a known
-- command and a header length that agrees with the prefix.
--
-- The library sends the prefix and the message in two writes, so a stream
-- often starts with a segment that holds only the prefix. Such a short start
-- is claimed while what it shows is plausible, and reassembly brings the
-- whole message back here for the full check before the conversation is
-- marked as WEFT.
local function heuristic_weft_tcp(tvb, pinfo, tree)
    local have = tvb:len()
    if have < TCP_PREFIX_SIZE then
        return false
    end
    local prefix = tvb:range(0, 2):le_uint()
    if prefix < WEFT_HEADER_SIZE or prefix > WEFT_MAX_PACKET_SIZE then
        return false
    end
    if have >= 3 and tvb:range(2, 1):uint() ~= WEFT_VERSION then
        return false
    end
    if have >= 4 and WEFT_COMMANDS[tvb:range(3, 1):uint()] == nil then
        return false
    end
    if have >= 5 and tvb:range(4, 1):uint() ~= (prefix - WEFT_HEADER_SIZE) % 256 then
        return false
    end
    if have >= 6 then
        if tvb:range(4, 2):le_uint() + WEFT_HEADER_SIZE ~= prefix then
            return false
        end
        pinfo.conversation = weft
    end
    -- Being called as a heuristic has used up one level of the permission to
    -- ask TCP for more bytes; without it a message split across segments
    -- could not be put back together.
    if pinfo.can_desegment > 0 then
        pinfo.can_desegment = 2
    end
    weft.dissector(tvb, pinfo, tree)
    return true
end

---------------------------------------------------------------------------
-- EUDP over UDP

local function mode_item(tree, field, tvb, offset)
    local code = tvb:range(offset, 1):uint()
    local item = tree:add(field, tvb:range(offset, 1))
    if MODE_LETTERS[code] == nil then
        item:add_proto_expert_info(eex.bad_mode, string.format(
            "Unknown mode byte %s: the answering side ignores the request", letter(code)))
    end
    return letter(code)
end

function eudp.dissector(tvb, pinfo, tree)
    local size = tvb:len()
    if size == 0 then
        return 0
    end
    pinfo.cols.protocol:set("EUDP")
    local root = tree:add(eudp, tvb:range(0, size))
    local cut = size < tvb:reported_len()

    local function finish(summary)
        root:add(ef.summary, tvb:range(0, size), summary):set_generated()
        root:append_text(": " .. summary:sub(6))
        pinfo.cols.info:clear_fence()
        pinfo.cols.info:set(summary)
        return size
    end

    local version = tvb:range(0, 1):uint()
    local vitem = root:add(ef.version, tvb:range(0, 1))
    if version ~= EUDP_VERSION then
        vitem:add_proto_expert_info(eex.bad_version, string.format(
            "Wrong version: %d, expected %d", version, EUDP_VERSION))
        return finish("EUDP [wrong version]")
    end
    if size < EUDP_HEADER_SIZE then
        if cut then
            root:add_proto_expert_info(eex.cut_short, "Captured bytes cut short: header not decoded")
            return finish("EUDP [cut short]")
        end
        root:add_proto_expert_info(eex.short_header, string.format(
            "Header too short: %d bytes, a header has %d", size, EUDP_HEADER_SIZE))
        return finish("EUDP [header too short]")
    end

    local name = tvb:raw(1, 3)
    local citem = root:add(ef.command, tvb:range(1, 3), printable(name))
    local meaning = EUDP_COMMANDS[name]
    if meaning == nil then
        citem:add_proto_expert_info(eex.unknown_command, string.format(
            "Unknown command \"%s\": the receiver drops the datagram", printable(name)))
        root:add_le(ef.arg, tvb:range(4, 4))
        return finish("EUDP " .. printable(name) .. " [unknown command]")
    end
    root:add(ef.command_desc, tvb:range(1, 3), meaning):set_generated()

    local arg = tvb:range(4, 4)
    local summary = "EUDP " .. name
    if SEQ_COMMANDS[name] then
        local seq = arg:le_uint()
        local item = root:add_le(ef.seq, arg)
        if seq > EUDP_SEQ_MAX then
            item:add_proto_expert_info(eex.seq_range, string.format(
                "Sequence number out of range: %d, the highest is %d", seq, EUDP_SEQ_MAX))
        end
        summary = summary .. " seq=" .. string.format("%d", seq)
    elseif name == "MOD" or name == "MAK" then
        local modes = root:add(ef.modes, arg, printable(tvb:raw(4, 4)))
        local send_asked = mode_item(modes, ef.mode_send_asked, tvb, 4)
        local send = mode_item(modes, ef.mode_send, tvb, 5)
        local recv_asked = mode_item(modes, ef.mode_recv_asked, tvb, 6)
        local recv = mode_item(modes, ef.mode_recv, tvb, 7)
        if name == "MOD" then
            summary = summary .. " send=" .. send_asked .. " recv=" .. recv_asked
        else
            summary = summary .. " send=" .. send .. " recv=" .. recv
                .. " (asked send=" .. send_asked .. " recv=" .. recv_asked .. ")"
        end
    elseif name == "WIN" or name == "WAK" then
        root:add_le(ef.window, arg)
        summary = summary .. " size=" .. string.format("%d", arg:le_uint())
    else
        root:add_le(ef.arg, arg)
    end

    local payload = tvb:reported_len() - EUDP_HEADER_SIZE
    root:add(ef.payload_length, tvb:range(0, 0), payload):set_generated()
    if tvb:reported_len() > EUDP_MAX_PACKET_SIZE then
        root:add_proto_expert_info(eex.too_long, string.format(
            "Datagram longer than 1500 bytes: %d, the receiver reads only the first 1500",
            tvb:reported_len()))
    end
    if cut then
        root:add_proto_expert_info(eex.cut_short, "Captured bytes cut short: payload not decoded")
        return finish(summary .. " [cut short]")
    end
    if name == "CMD" then
        if payload == 0 then
            root:add(ef.keepalive, tvb:range(0, size)):set_generated()
            summary = summary .. " keep-alive"
        else
            root:add(ef.payload, tvb:range(EUDP_HEADER_SIZE, payload))
            summary = summary .. " -> " .. decode_weft(tvb:range(EUDP_HEADER_SIZE):tvb(), pinfo, tree, nil)
        end
    elseif payload > 0 then
        root:add(ef.payload, tvb:range(EUDP_HEADER_SIZE, payload)):add_proto_expert_info(
            eex.stray_payload, string.format("Payload on a control packet: %d bytes, the receiver ignores them",
                payload))
    end
    return finish(summary)
end

-- Accepted connections answer from new ports, so most EUDP traffic is found
-- by its header: version 1 and one of the ten command names.
local function heuristic_eudp(tvb, pinfo, tree)
    if tvb:len() < EUDP_HEADER_SIZE or tvb:range(0, 1):uint() ~= EUDP_VERSION then
        return false
    end
    if EUDP_COMMANDS[tvb:raw(1, 3)] == nil then
        return false
    end
    pinfo.conversation = eudp
    eudp.dissector(tvb, pinfo, tree)
    return true
end

---------------------------------------------------------------------------
-- Registration and preferences

weft.prefs.tcp_port = Pref.uint("TCP port", DEFAULT_PORT,
    "TCP port decoded as WEFT (0 for none); other ports are found by the heuristic or Decode As")
eudp.prefs.udp_port = Pref.uint("UDP port", DEFAULT_PORT,
    "UDP port of an EUDP listener (0 for none); accepted connections are found by the heuristic")

local tcp_table = DissectorTable.get("tcp.port")
local udp_table = DissectorTable.get("udp.port")
local registered_tcp, registered_udp = 0, 0

local function register_ports()
    if registered_tcp ~= 0 then
        tcp_table:remove(registered_tcp, weft)
    end
    if registered_udp ~= 0 then
        udp_table:remove(registered_udp, eudp)
    end
    registered_tcp = weft.prefs.tcp_port
    registered_udp = eudp.prefs.udp_port
    if registered_tcp ~= 0 then
        tcp_table:add(registered_tcp, weft)
    end
    if registered_udp ~= 0 then
        udp_table:add(registered_udp, eudp)
    end
end

function weft.prefs_changed()
    register_ports()
end
function eudp.prefs_changed()
    register_ports()
end

register_ports()
tcp_table:add_for_decode_as(weft)
udp_table:add_for_decode_as(eudp)
weft:register_heuristic("tcp", heuristic_weft_tcp)
eudp:register_heuristic("udp", heuristic_eudp)
