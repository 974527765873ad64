-- The protocol of scanner processes for Wireshark and tshark: docs/formats/scan-protocol.md, serialised-result.md.
-- A connection is known by its first request ("get setup_scan", "get wakeup"), on any port. Each request, header block,
-- section, verdict and content is an item of its own, put together from as many segments as it needs; content is shown
-- as it comes. Try it: tshark -X lua_script:velt-scan.lua -r FILE -Y veltscan -V

local scan = Proto("veltscan", "Velt scan protocol")

local f = {
    request = ProtoField.string("veltscan.request", "Request"),
    state = ProtoField.string("veltscan.state", "State"),
    header = ProtoField.string("veltscan.header", "Header"),
    protocol = ProtoField.string("veltscan.protocol", "Protocol"),
    time = ProtoField.string("veltscan.time", "Time"),
    size = ProtoField.uint32("veltscan.size", "Size"),
    policy = ProtoField.string("veltscan.policy", "Policy"),
    filename = ProtoField.string("veltscan.filename", "File name"),
    identity = ProtoField.string("veltscan.identity", "Identity"),
    fallbackscan = ProtoField.uint8("veltscan.fallbackscan", "Fallback scan"),
    connattr = ProtoField.uint8("veltscan.connattr", "Attributes offered"),
    output_in_input = ProtoField.uint8("veltscan.output_in_input", "Content takes the input's place"),
    cached = ProtoField.uint8("veltscan.cached", "Changed in the client's file"),
    input_modified = ProtoField.uint8("veltscan.input_modified", "Content was changed"),
    section = ProtoField.string("veltscan.section", "Section"),
    verdict = ProtoField.none("veltscan.verdict", "Verdict"),
    triggered = ProtoField.uint8("veltscan.triggered", "Triggered"),
    modified = ProtoField.uint8("veltscan.modified", "Modified"),
    action = ProtoField.string("veltscan.action", "Action"),
    result = ProtoField.string("veltscan.result", "Result of"),
    infections = ProtoField.string("veltscan.infections", "Infections"),
    class = ProtoField.string("veltscan.class", "Scanner class"),
    place = ProtoField.string("veltscan.place", "Place"),
    property = ProtoField.string("veltscan.property", "Property"),
    line = ProtoField.string("veltscan.line", "Line"),
    content = ProtoField.bytes("veltscan.content", "Content"),
}
scan.fields = f
local broken = ProtoExpert.new("veltscan.broken", "Not what the protocol says here", expert.group.MALFORMED,
                               expert.severity.WARN)
scan.experts = {broken}

local stream_of = Field.new("tcp.stream")

-- By stream: what comes next from either side, and whether a scan was asked for.
-- By packet and length: the same as it was before that piece, for every later look at it.
local streams, pieces

function scan.init()
    streams, pieces = {}, {}
end

local NUMBERS = {size = true, fallbackscan = true, connattr = true, output_in_input = true, cached = true,
                 input_modified = true}
local MORE = {}  -- an item that does not end in what is here

-- The line at an offset without its end, and the offset behind it; nil where it does not end.
local function line_at(tvb, at)
    for i = at, tvb:len() - 1 do
        if tvb(i, 1):uint() == 10 then
            local last = i
            if last > at and tvb(last - 1, 1):uint() == 13 then last = last - 1 end
            return last > at and tvb:raw(at, last - at) or "", i + 1
        end
    end
end

local function utf8_of(code)
    if code < 0x80 then return string.char(code) end
    if code < 0x800 then return string.char(0xC0 + math.floor(code / 64), 0x80 + code % 64) end
    if code < 0x10000 then
        return string.char(0xE0 + math.floor(code / 4096), 0x80 + math.floor(code / 64) % 64, 0x80 + code % 64)
    end
    return string.char(0xF0 + math.floor(code / 262144), 0x80 + math.floor(code / 4096) % 64,
                       0x80 + math.floor(code / 64) % 64, 0x80 + code % 64)
end

-- Four bytes a character, in the order of the machines.
local function wide_text(range)
    local text = {}
    for i = 0, range:len() - 4, 4 do
        local code = range(i, 4):le_uint()
        if code > 0x10FFFF then code = range(i, 4):uint() end
        text[#text + 1] = code > 0x10FFFF and "?" or utf8_of(code)
    end
    return table.concat(text)
end

-- How many raw bytes follow a line, and how wide its characters are.
local function payload_of(line)
    local count = line:match("^infectionlist (%d+)$") or line:match("^scanpolcontext +scan_context_%a[%a_]* (%d+)$") or
                  line:match("^property %.%S+ .s (%d+)$")
    if count then return tonumber(count) * 4, 4 end
    count = line:match("^classname .s (%d+)$") or line:match("^msr%.%a[%a._]* .s (%d+)$")
    if count then return tonumber(count), 1 end
    count = line:match("^%a[%a_]*%.%S+ .s (%d+)$")
    if count then return tonumber(count) * 4, 4 end
    return 0, 1
end

-- A line and what follows it: the line, its text, where it ends.
local function record_at(tvb, at)
    local line, behind = line_at(tvb, at)
    if not line then return MORE end
    local bytes, width = payload_of(line)
    if behind + bytes > tvb:len() then return MORE end
    local text = ""
    if bytes > 0 then text = width == 4 and wide_text(tvb(behind, bytes)) or tvb:raw(behind, bytes) end
    return line, text, behind + bytes
end

-- --- the items: each answers where it ends and what it is called, or MORE ---

local function header_block(tvb, at, tree, conv, from_client)
    local headers, behind, lines = {}, at, {}
    while true do
        local line, next_at = line_at(tvb, behind)
        if not line then return MORE end
        if line == "" then behind = next_at break end
        local name, value = line:match("^(%S+) (.*)$")
        lines[#lines + 1] = {behind, next_at - behind, name, value, line}
        if name then headers[name] = value end
        behind = next_at
    end
    local what = from_client and "Request" or "Answer"
    local item = tree:add(scan, tvb(at, behind - at), what)
    for _, one in ipairs(lines) do
        local range, name, value = tvb(one[1], one[2]), one[3], one[4]
        local field = name and (name == "get" and f.request or name == "State" and f.state or f[name])
        if not name then
            item:add(f.line, range, one[5]):add_proto_expert_info(broken)
        elseif NUMBERS[name] then
            item:add(field, range, tonumber(value) or 0)
        else
            item:add(field or f.header, range, field and value or name .. " " .. value)
        end
    end
    if from_client then
        conv.request = headers.get
        if headers.get == "setup_scan" then
            conv.client, conv.left = "scan_properties", headers.filename and 0 or tonumber(headers.size) or 0
        end
        return behind, headers.get or "?"
    end
    if headers.State == "Attributes" then conv.client = "conattr" end
    if conv.request == "scan" and headers.State == "OK" then
        conv.server = "verdict"
        local own, changed = headers.output_in_input == "0", headers.input_modified ~= "0" and headers.cached == "0"
        conv.due = (own or changed) and tonumber(headers.size) or 0
    end
    return behind, headers.State or "?"
end

local function section(tvb, at, tree, conv, from_client)
    local name = from_client and conv.client or "properties"
    local item = tree:add(f.section, tvb(at), name)
    local behind = at
    while true do
        local line, text, next_at = record_at(tvb, behind)
        if line == MORE then return MORE end
        if line == "" then behind = next_at break end
        local shown = item:add(f.property, tvb(behind, next_at - behind), line .. (text ~= "" and " " .. text or ""))
        behind = next_at
        if line:sub(1, #name) ~= name then
            shown:add_proto_expert_info(broken)
            break
        end
    end
    item:set_len(behind - at)
    if from_client then
        conv.client = name == "scan_properties" and conv.left > 0 and "content" or "request"
    else
        conv.server = conv.due > 0 and "content" or "answer"
        conv.left_after = conv.due
    end
    return behind, name
end

local SCALARS = {["msr.triggered"] = f.triggered, ["msr.modified"] = f.modified}

local function verdict_line(tree, range, line, text)
    local word = line:match("^(%S+)")
    local number = line:match(" s[lb] (%d+)$")
    if SCALARS[word] and number then return tree:add(SCALARS[word], range, tonumber(number)) end
    if word == "msr.action" or word == "msr.master.action" then return tree:add(f.action, range, text) end
    if word == "infectionlist" then return tree:add(f.infections, range, text) end
    if word == "classname" then return tree:add(f.class, range, text) end
    if word == "scanpolcontext" then return tree:add(f.place, range, text) end
    return tree:add(word == "property" and f.property or f.line, range, line .. (text ~= "" and " " .. text or ""))
end

local function verdict(tvb, at, tree, conv)
    local item = tree:add(f.verdict, tvb(at))
    local behind, inside = at, nil
    while true do
        local line, text, next_at = record_at(tvb, behind)
        if line == MORE then return MORE end
        local range = tvb(behind, next_at - behind)
        behind = next_at
        if inside and not line:find(" ") then
            inside = nil
        elseif line == "" then
            break
        elseif line == "msr.master.result" or line == "msr.sr.result" then
            inside = item:add(f.result, range, line == "msr.sr.result" and "another scanner" or "the one that decided")
        else
            verdict_line(inside or item, range, line, text)
        end
    end
    item:set_len(behind - at)
    conv.server = "properties"
    return behind, "verdict"
end

local function content(tvb, at, tree, conv, from_client)
    local left = from_client and "left" or "left_after"
    local length = math.min(conv[left], tvb:len() - at)
    conv[left] = conv[left] - length
    tree:add(f.content, tvb(at, length)):append_text(" (" .. length .. " bytes, " .. conv[left] .. " to come)")
    if conv[left] == 0 then
        if from_client then conv.client = "request" else conv.server = "answer" end
    end
    return at + length, "content"
end

local ITEMS = {
    request = header_block, scan_properties = section, conattr = section,
    answer = header_block, verdict = verdict, properties = section, content = content,
}

-- A tree on which nothing hangs: an item is shown when all of it is there.
local NOWHERE = {}
setmetatable(NOWHERE, {__index = function() return function() return NOWHERE end end})

-- --- a connection ---

local function copy(conv)
    local made = {}
    for key, value in pairs(conv) do made[key] = value end
    return made
end

-- The connection as it was before this piece.
local function conversation(pinfo, tvb)
    local number = stream_of().value
    local key = pinfo.number .. "/" .. tvb:len()
    if not streams[number] then
        streams[number] = {client = "request", server = "answer", port = pinfo.src_port, left = 0, due = 0, left_after = 0}
    end
    if not pinfo.visited then
        pieces[key] = copy(streams[number])
        return streams[number]
    end
    return copy(pieces[key] or streams[number])
end

function scan.dissector(tvb, pinfo, tree)
    local conv = conversation(pinfo, tvb)
    local from_client = pinfo.src_port == conv.port
    local root = tree:add(scan, tvb())
    local names, at = {}, 0
    pinfo.cols.protocol = "VELTSCAN"
    while at < tvb:len() do
        local item = ITEMS[from_client and conv.client or conv.server]
        if item(tvb, at, NOWHERE, copy(conv), from_client) == MORE then
            pinfo.desegment_offset, pinfo.desegment_len = at, DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local next_at, name = item(tvb, at, root, conv, from_client)
        names[#names + 1], at = name, next_at
    end
    if #names > 0 then
        pinfo.cols.info = (from_client and "ask: " or "answer: ") .. table.concat(names, ", ")
        root:append_text(", " .. table.concat(names, ", "))
    end
    return tvb:len()
end

-- Only its beginning tells a connection of this protocol from others.
local function begins(tvb, pinfo, tree)
    if tvb:len() < 12 then return false end
    local head = tvb:raw(0, math.min(15, tvb:len()))
    if head ~= "get setup_scan\n" and head:sub(1, 12) ~= "get wakeup\n\n" then return false end
    pinfo.conversation = scan
    scan.dissector(tvb, pinfo, tree)
    return true
end

scan:register_heuristic("tcp", begins)
DissectorTable.get("tcp.port"):add_for_decode_as(scan)
