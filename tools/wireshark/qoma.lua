-- Wireshark and tshark: the device link and the notification datagrams of QOMA devices.
--
--     wireshark -X lua_script:qoma.lua                            (or put it into the folder of personal Lua plugins)
--     tshark -X lua_script:qoma.lua -r capture.pcapng -Y 'qoma || qomakick'
--
-- The link is known by its port (19290, a preference), and on any other port by its first frame. Datagrams are
-- known by their KICKSEQ= clause, wherever they go; the same bytes on their way back are the echo.

local link = Proto("qoma", "QOMA device link")
local kick = Proto("qomakick", "QOMA notification datagram")

link.prefs.port = Pref.uint("TCP port", 19290, "Where the device listens")

local kinds = {
    [1] = "hello", [2] = "get device id", [3] = "get", [4] = "set", [5] = "trap", [6] = "untrap", [7] = "ping",
    [16] = "trap value",
}
local names = {}
for number, name in pairs(kinds) do
    names[number] = name
    if number ~= 16 then
        names[number + 0x80] = name .. " answer"
    end
end
local results = {
    [0] = "done", [5] = "not allowed", [24] = "wrong length", [31] = "the device failed", [87] = "makes no sense",
    [170] = "busy", [1168] = "no such object", [1306] = "another version", [1629] = "wrong data type",
    [1816] = "the panel is full",
}
local uses = { [0] = "probe", [3] = "local", [4] = "network" }
local types = { [1] = "word", [4] = "text", [5] = "bytes", [8] = "bits" }
local objects = {
    ["1.2.2.1.37"] = "UI-ADD-OPTION", ["1.2.2.1.38"] = "UI-SELECT-OPTION", ["1.2.2.1.42"] = "UI-DELETE-OPTION",
    ["1.2.2.2.1"] = "NOT-READY-SOURCE-SCANNER", ["1.2.2.2.7"] = "SCANNER_BUTTON_STATUS", ["1.1.1.25"] = "SCAN_TOKEN",
    ["1.1.3.3"] = "SERIAL-NUMBER", ["1.3.7.2.1"] = "FAX-UPLOAD",
}

local f = {
    length = ProtoField.uint32("qoma.length", "Length"),
    kind = ProtoField.uint8("qoma.kind", "Kind", base.DEC, names),
    number = ProtoField.uint32("qoma.number", "Number"),
    result = ProtoField.uint32("qoma.result", "Result", base.DEC, results),
    magic = ProtoField.string("qoma.magic", "Magic"),
    version = ProtoField.uint16("qoma.version", "Version"),
    use = ProtoField.uint8("qoma.use", "Use", base.DEC, uses),
    address = ProtoField.string("qoma.address", "Address text"),
    id = ProtoField.string("qoma.device_id", "Identification"),
    oid = ProtoField.string("qoma.oid", "Object identifier"),
    object = ProtoField.string("qoma.object", "Object"),
    data_type = ProtoField.uint8("qoma.data_type", "Data type", base.DEC, types),
    trap = ProtoField.uint16("qoma.trap", "Trap id"),
    value = ProtoField.bytes("qoma.value", "Value"),
    word = ProtoField.uint32("qoma.word", "Value", base.HEX_DEC),
    text = ProtoField.string("qoma.text", "Value"),
}
link.fields = f
local e = {
    garbage = ProtoExpert.new("qoma.garbage", "A length that no frame has", expert.group.MALFORMED, expert.severity.ERROR),
    short = ProtoExpert.new("qoma.short", "The payload is too short", expert.group.MALFORMED, expert.severity.ERROR),
    long = ProtoExpert.new("qoma.long", "The payload has bytes left over", expert.group.MALFORMED, expert.severity.WARN),
    unknown = ProtoExpert.new("qoma.unknown", "A kind that is not known", expert.group.PROTOCOL, expert.severity.WARN),
    failed = ProtoExpert.new("qoma.failed", "The device says no", expert.group.RESPONSE_CODE, expert.severity.NOTE),
}
link.experts = e

local kHead = 9
local kMinBody, kMaxBody = 5, 65536
local kAnswer = 0x80

-- Takes a payload apart, field by field. After one that is not whole, nothing more is read.
local Reader = {}
Reader.__index = Reader

function Reader.new(range, tree)
    return setmetatable({ range = range, tree = tree, at = 0, short = false }, Reader)
end

function Reader:left()
    return self.range and self.range:len() - self.at or 0
end

function Reader:take(size)
    if self.short or self:left() < size then
        self.short = true
        return nil
    end
    local piece = size > 0 and self.range(self.at, size) or nil
    self.at = self.at + size
    return piece
end

function Reader:number(field, size)
    local piece = self:take(size)
    if not piece then
        return nil
    end
    self.tree:add_le(field, piece)
    return piece:le_uint()
end

-- Bytes behind a length of so many bytes: the range (nil when there are none) and whether they were there.
function Reader:counted(size)
    local head = self:take(size)
    if not head then
        return nil, false
    end
    local piece = self:take(head:le_uint())
    return piece, not self.short
end

function Reader:text(field, size)
    local piece, there = self:counted(size)
    local text = piece and piece:raw() or ""
    if there then
        self.tree:add(field, piece or self.range(self.at - size, size), text)
    end
    return text
end

function Reader:oid()
    local piece, there = self:counted(1)
    if not there then
        return ""
    end
    local bytes = piece and piece:bytes() or ByteArray.new()
    local numbers = {}
    for i = 0, bytes:len() - 1 do
        numbers[#numbers + 1] = bytes:get_index(i)
    end
    local oid = table.concat(numbers, ".")
    local place = piece or self.range(self.at - 1, 1)
    self.tree:add(f.oid, place, oid)
    local name = objects[oid] or oid
    self.tree:add(f.object, place, name)
    return name
end

function Reader:value(data_type)
    local piece, there = self:counted(4)
    if not there or not piece then
        return ""
    end
    if data_type == 4 then
        self.tree:add(f.text, piece, piece:raw())
        return piece:raw()
    end
    if piece:len() == 4 then
        self.tree:add_le(f.word, piece)
        return tostring(piece:le_uint())
    end
    self.tree:add(f.value, piece)
    return ""
end

-- What a kind carries. Each gives what to say of it in one word or two.
local requests = {
    [1] = function(r)
        local magic = r:take(4)
        if magic then
            r.tree:add(f.magic, magic, magic:raw())
        end
        r:number(f.version, 2)
        local use = r:number(f.use, 1)
        r:text(f.address, 1)
        return uses[use] or ""
    end,
    [2] = function() return "" end,
    [3] = function(r)
        local name = r:oid()
        r:number(f.data_type, 1)
        return name
    end,
    [4] = function(r)
        local name = r:oid()
        return name .. " " .. r:value(r:number(f.data_type, 1))
    end,
    [5] = function(r)
        local name = r:oid()
        r:number(f.data_type, 1)
        r:number(f.trap, 2)
        return name
    end,
    [6] = function(r) return r:oid() end,
    [7] = function() return "" end,
    [16] = function(r)
        local trap = r:number(f.trap, 2)
        return "trap " .. tostring(trap) .. " " .. r:value(r:number(f.data_type, 1))
    end,
}
local answers = {
    [1] = function(r)
        r:number(f.version, 2)
        return r:text(f.address, 1)
    end,
    [2] = function(r) return r:text(f.id, 4) end,
    [3] = function(r) return r:value(nil) end,
}

local function dissect_payload(kind, range, tree)
    local reader = Reader.new(range, tree)
    local words = ""
    if kind == 16 or kind < kAnswer then
        words = requests[kind](reader)
    else
        local result = reader:number(f.result, 4)
        if result and result ~= 0 then
            tree:add_proto_expert_info(e.failed, results[result] or ("result " .. result))
            words = results[result] or ("result " .. result)
        elseif result and answers[kind - kAnswer] then
            words = answers[kind - kAnswer](reader)
        end
    end
    if reader.short then
        tree:add_proto_expert_info(e.short)
    elseif reader:left() > 0 then
        tree:add_proto_expert_info(e.long)
    end
    return words
end

local function dissect_frame(range, pinfo, tree)
    local kind = range(4, 1):uint()
    local branch = tree:add(link, range)
    branch:add_le(f.length, range(0, 4))
    branch:add(f.kind, range(4, 1))
    branch:add_le(f.number, range(5, 4))
    local name = names[kind] or ("kind " .. kind)
    local words = ""
    if names[kind] then
        words = dissect_payload(kind, range:len() > kHead and range(kHead) or nil, branch)
    else
        branch:add_proto_expert_info(e.unknown)
    end
    local text = words == "" and name or name .. ": " .. words
    branch:append_text(", " .. text)
    return text
end

function link.dissector(buffer, pinfo, tree)
    pinfo.cols.protocol = "QOMA"
    local at = 0
    local texts = {}
    while at < buffer:len() do
        local left = buffer:len() - at
        local body = left >= 4 and buffer(at, 4):le_uint() or kMinBody
        if left >= 4 and (body < kMinBody or body > kMaxBody) then
            tree:add(link, buffer(at)):add_proto_expert_info(e.garbage, "A length that no frame has: " .. body)
            texts[#texts + 1] = "garbage"
            break
        end
        if left < 4 or left < body + 4 then
            pinfo.desegment_offset = at
            pinfo.desegment_len = left < 4 and DESEGMENT_ONE_MORE_SEGMENT or body + 4 - left
            break
        end
        texts[#texts + 1] = dissect_frame(buffer(at, body + 4), pinfo, tree)
        at = at + body + 4
    end
    if #texts > 0 then
        pinfo.cols.info = table.concat(texts, " | ")
    end
    return buffer:len()
end

-- Another port: a stream that begins with a hello is one of ours, from there on.
local function is_hello(buffer)
    return buffer:len() >= kHead + 4 and buffer(4, 1):uint() == 1 and buffer(kHead, 4):raw() == "QDLK"
end

link:register_heuristic("tcp", function(buffer, pinfo, tree)
    if not is_hello(buffer) then
        return false
    end
    pinfo.conversation = link
    link.dissector(buffer, pinfo, tree)
    return true
end)

local tcp = DissectorTable.get("tcp.port")
local registered = link.prefs.port
tcp:add(registered, link)
function link.prefs_changed()
    tcp:remove(registered, link)
    registered = link.prefs.port
    tcp:add(registered, link)
end

-- ---- Datagrams

local k = {
    text = ProtoField.string("qomakick.text", "Text"),
    sequence = ProtoField.string("qomakick.sequence", "Sequence number"),
    echo = ProtoField.bool("qomakick.echo", "Echo"),
    first = ProtoField.framenum("qomakick.echo_of", "Echo of", base.NONE, frametype.REQUEST),
    again = ProtoField.bool("qomakick.again", "Sent again"),
}
kick.fields = k
local kMaxDatagram = 349
local ke = {
    again = ProtoExpert.new("qomakick.sent_again", "Sent again", expert.group.SEQUENCE, expert.severity.NOTE),
    long = ProtoExpert.new("qomakick.too_long", "Longer than a client takes", expert.group.MALFORMED, expert.severity.WARN),
}
kick.experts = ke

local sent = {}  -- text and ends -> the frame that it was first seen in
local about = {} -- frame -> what the first pass found

function kick.init()
    sent, about = {}, {}
end

-- A host with several addresses may answer from another one, so only the ports have to fit.
local function ports(pinfo, back)
    return back and pinfo.dst_port .. ">" .. pinfo.src_port or pinfo.src_port .. ">" .. pinfo.dst_port
end

local function look(pinfo, text)
    if about[pinfo.number] then
        return about[pinfo.number]
    end
    local found = {}
    local first = sent[ports(pinfo, true) .. " " .. text]
    if first then
        found.echo_of = first
    elseif sent[ports(pinfo, false) .. " " .. text] then
        found.again = true
    else
        sent[ports(pinfo, false) .. " " .. text] = pinfo.number
    end
    about[pinfo.number] = found
    return found
end

local function dissect_kick(buffer, pinfo, tree)
    local text = buffer:raw()
    local sequence = text:match("KICKSEQ=([^;]*);")
    if not sequence then
        return false
    end
    local found = look(pinfo, text)
    pinfo.cols.protocol = "QOMA kick"
    local branch = tree:add(kick, buffer())
    branch:add(k.text, buffer(), text)
    branch:add(k.sequence, buffer(), sequence)
    branch:add(k.echo, buffer(0, 0), found.echo_of ~= nil)
    if found.echo_of then
        branch:add(k.first, buffer(0, 0), found.echo_of)
    end
    if found.again then
        branch:add(k.again, buffer(0, 0), true)
        branch:add_proto_expert_info(ke.again)
    end
    if buffer:len() > kMaxDatagram then
        branch:add_proto_expert_info(ke.long)
    end
    local what = found.echo_of and "echo" or found.again and "sent again" or "sent"
    pinfo.cols.info = what .. ": " .. text
    return true
end

function kick.dissector(buffer, pinfo, tree)
    dissect_kick(buffer, pinfo, tree)
end
kick:register_heuristic("udp", function(buffer, pinfo, tree)
    return dissect_kick(buffer, pinfo, tree)
end)
