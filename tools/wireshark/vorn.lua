-- Wireshark dissector for Vorn RPC over TCP. For how to use it, see README.md in this folder.
--
--   stream    (bytes that belong to no frame, or a frame)*
--   frame     A5 | layout with bit 0 set   | seq:2 | length:4                        | payload
--             A5 | layout with bit 0 clear | seq:2 | length:3 | DE AD BE EF | 5A     | payload
--   payload   value*, each one a message
--
-- vorn.message and vorn.error follow the native library: a frame that fails its checks is not decoded, and messages
-- end at the first one that cannot be read. The tree shows everything else that is known.

local vorn = Proto("vorn", "Vorn RPC")

local START_MARKER = 0xA5
local HEADER_CHECK = 0x5A
local PAYLOAD_CHECK = 0xDEADBEEF
local SOFT_LIMIT = 0x7FFFFFFF
local MAX_DEPTH = 64
local MAX_STRING = 2 ^ 20 -- bytes of a string that are shown
local MAX_TEXT = 2 ^ 23 -- bytes of message text per packet; more stalls the user interface
local MAX_LABEL = 120 -- bytes of text per line of the tree

-- Preferences ------------------------------------------------------------------------------------------------

vorn.prefs.ports = Pref.range("TCP ports", "", "Ports whose streams are Vorn RPC, whatever they begin with", 65535)
vorn.prefs.max_frame = Pref.uint("Longest payload to reassemble (MiB)", 64,
  "Longer payloads are skipped, not reassembled in memory")
vorn.prefs.max_values = Pref.uint("Values to decode at once", 100000,
  "Decoding of a packet stops after this many values")

local registered_ports = ""
function vorn.prefs_changed()
  local tcp_ports = DissectorTable.get("tcp.port")
  if registered_ports ~= "" then tcp_ports:remove(registered_ports, vorn) end
  registered_ports = tostring(vorn.prefs.ports)
  if registered_ports ~= "" then tcp_ports:add(registered_ports, vorn) end
end

-- Fields -----------------------------------------------------------------------------------------------------

local f = {
  layout = ProtoField.uint8("vorn.layout", "Header length", base.DEC),
  marker = ProtoField.uint8("vorn.marker", "Start marker", base.HEX),
  layout_byte = ProtoField.uint8("vorn.layout_byte", "Layout byte", base.HEX),
  seq = ProtoField.uint16("vorn.seq", "Sequence number", base.DEC),
  length = ProtoField.uint32("vorn.length", "Payload length", base.DEC),
  payload_check = ProtoField.uint32("vorn.payload_check", "Payload check word", base.HEX),
  header_check = ProtoField.uint8("vorn.header_check", "Header check byte", base.HEX),
  payload = ProtoField.bytes("vorn.payload", "Payload"),
  messages = ProtoField.uint32("vorn.messages", "Messages", base.DEC),
  message = ProtoField.string("vorn.message", "Message"),
  error = ProtoField.string("vorn.error", "Error"),
  skipped = ProtoField.uint32("vorn.skipped", "Bytes outside frames", base.DEC),
  continued = ProtoField.uint32("vorn.continued", "Payload bytes of an earlier frame", base.DEC),
  undecoded = ProtoField.bytes("vorn.undecoded", "Undecoded bytes"),
  value = {
    ["nil"] = ProtoField.none("vorn.value.nil", "nil"),
    bool = ProtoField.bool("vorn.value.bool", "Boolean"),
    int = ProtoField.int64("vorn.value.int", "Integer", base.DEC),
    float = ProtoField.float("vorn.value.float", "Float"),
    double = ProtoField.double("vorn.value.double", "Double"),
    string = ProtoField.string("vorn.value.string", "String"),
    binary = ProtoField.bytes("vorn.value.binary", "Binary string"),
    symbol = ProtoField.string("vorn.value.symbol", "Symbol"),
    hash = ProtoField.none("vorn.value.hash", "Hash"),
    key = ProtoField.string("vorn.value.key", "Key"),
    array = ProtoField.none("vorn.value.array", "Array"),
    count = ProtoField.uint32("vorn.value.count", "Count", base.DEC),
  },
}

local fields = {}
for _, field in pairs(f) do
  if type(field) ~= "table" then fields[#fields + 1] = field end
end
for _, field in pairs(f.value) do fields[#fields + 1] = field end
vorn.fields = fields

local malformed = ProtoExpert.new("vorn.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local not_native = ProtoExpert.new("vorn.not_native", "Only Ruby peers can read this",
  expert.group.PROTOCOL, expert.severity.WARN)
local outside = ProtoExpert.new("vorn.outside", "Bytes outside frames", expert.group.SEQUENCE, expert.severity.WARN)
local cut = ProtoExpert.new("vorn.cut", "Not shown in full", expert.group.UNDECODED, expert.severity.NOTE)
vorn.experts = { malformed, not_native, outside, cut }

local function report(tree, range, kind, text)
  local item = range and tree:add(f.error, range, text) or tree:add(f.error, text)
  item:set_generated()
  item:add_proto_expert_info(kind, text)
end

-- Text -------------------------------------------------------------------------------------------------------

local escapes = { ['"'] = '\\"', ["\\"] = "\\\\" }
for byte = 0, 255 do
  if byte < 0x20 or byte >= 0x80 then escapes[string.char(byte)] = string.format("\\x%02x", byte) end
end

local function quoted(bytes)
  return '"' .. bytes:gsub(".", escapes) .. '"'
end

-- string.format uses the locale's decimal point.
local function double_text(number)
  return (string.format("%f", number):gsub("[^0-9a-z%-]+", "."))
end

-- Lua's own comparison follows the locale.
local function bytewise_less(a, b)
  for i = 1, math.min(#a, #b) do
    local x, y = a:byte(i), b:byte(i)
    if x ~= y then return x < y end
  end
  return #a < #b
end

local function hash_text(entries)
  local keys, texts = {}, {}
  for key in pairs(entries) do keys[#keys + 1] = key end
  table.sort(keys, bytewise_less)
  for i, key in ipairs(keys) do texts[i] = quoted(key) .. "=>" .. entries[key] end
  return "{" .. table.concat(texts, ", ") .. "}"
end

local function label(text)
  if #text <= MAX_LABEL then return text end
  return text:sub(1, MAX_LABEL) .. "..."
end

-- Values -----------------------------------------------------------------------------------------------------
--
-- A walk reads values from one payload:
--   tvb, bytes    the packet, and its bytes as a Lua string
--   pos, stop     offset of the next byte, offset of the payload's end
--   depth         nesting depth of the open values
--   text_cut      some of the message's text is missing
--   fault, fault_pos   why and where reading stopped
--   late_fault    a fault that only building the value detects. It counts if the rest of the message has no fault:
--                 the native library first walks a message, then builds it
--   exhausted     reading stopped because there are too many values
--
-- Readers return the value's text, or nil when reading stopped.

-- The remaining budget of the current call of the dissector, shared by all its frames.
local values_left, text_left = 0, 0

local function fail(walk, fault)
  walk.fault, walk.fault_pos = fault, walk.pos
end

local function fail_late(walk, fault, pos)
  if not walk.late_fault then walk.late_fault, walk.late_pos = fault, pos end
end

local function spend(walk)
  values_left = values_left - 1
  walk.exhausted = values_left < 0
  return not walk.exhausted
end

local function take_text(walk, text)
  if #text > text_left then
    walk.text_cut = true
    return "..."
  end
  text_left = text_left - #text
  return text
end

-- Reads a varint, lowest bits first. The first byte holds `first_bits` of them, then a continuation flag; the caller
-- knows the bits above. Returns the number as UInt64, and the first byte. Groups beyond bit 63 wrap around to bit 0,
-- as in every peer.
local function read_groups(walk, first_bits)
  local first = walk.bytes:byte(walk.pos + 1)
  local flag = 2 ^ first_bits
  local number, shift, groups = UInt64(first % flag), first_bits, 1
  local more = first % (2 * flag) >= flag
  walk.pos = walk.pos + 1
  while more do
    if walk.pos >= walk.stop then return nil end
    -- No writer produces so many groups, but a hostile payload can be one endless number.
    groups = groups + 1
    if groups > 10 and not spend(walk) then return nil end
    local byte = walk.bytes:byte(walk.pos + 1)
    number = number:bor(UInt64(byte % 128):lshift(shift % 64))
    shift = shift + 7
    more = byte >= 128
    walk.pos = walk.pos + 1
  end
  return number, first
end

local function read_int(walk, tree)
  local start = walk.pos
  local magnitude, first = read_groups(walk, 5)
  if not magnitude then
    if not walk.exhausted then fail(walk, "buffer underrun decoding integer") end
    return nil
  end
  local int = Int64(magnitude:lower(), magnitude:higher())
  if first % 128 >= 64 then int = -int end
  tree:add(f.value.int, walk.tvb(start, walk.pos - start), int)
  return take_text(walk, tostring(int))
end

local function read_float(walk, tree, field, size)
  if walk.pos + size > walk.stop then return fail(walk, "buffer underrun") end
  local number = walk.tvb(walk.pos, size):float()
  tree:add(field, walk.tvb(walk.pos - 1, size + 1), number)
  walk.pos = walk.pos + size
  return take_text(walk, double_text(number))
end

local string_fields = { [0x06] = f.value.symbol, [0x07] = f.value.string }

-- Returns the text, and the bytes.
local function read_string(walk, tree, transport_type)
  local size = walk.pos < walk.stop and read_groups(walk, 7)
  if not size then
    if not walk.exhausted then fail(walk, "buffer underrun decoding data length") end
    return nil
  end
  size = size:lower()
  local body = walk.pos
  walk.pos = body + size
  if walk.pos > walk.stop then
    fail_late(walk, "buffer underrun extracting data bytes", body)
    local item = tree:add(walk.tvb(body - 1, walk.stop - body + 1), string.format("String of %d bytes", size))
    item:add_proto_expert_info(malformed, "String runs past the payload")
    return "", ""
  end
  local shown = walk.tvb(body, math.min(size, MAX_STRING))
  local bytes = walk.bytes:sub(body + 1, body + size)
  if transport_type == 0x05 then
    tree:add(f.value.binary, shown):set_text("Binary string: " .. label(quoted(bytes:sub(1, MAX_LABEL + 1))))
  else
    tree:add_packet_field(string_fields[transport_type], shown, ENC_UTF_8)
  end
  return take_text(walk, size <= text_left and quoted(bytes) or bytes), bytes
end

local read_value

local function open_container(walk, tree, field)
  local start = walk.pos - 1
  return tree:add(field, walk.tvb(start, walk.stop - start)), start
end

local function close_container(walk, item, start, count, what)
  item:set_len(math.min(walk.pos, walk.stop) - start)
  item:append_text(" (" .. count .. " " .. what .. ")")
  item:add(f.value.count, count):set_generated()
end

-- Consumes the end mark if it is next. Returns nil at the end of the payload.
local function at_end(walk, end_mark)
  if walk.pos >= walk.stop then return fail(walk, "buffer underrun") end
  if walk.bytes:byte(walk.pos + 1) ~= end_mark then return false end
  walk.pos = walk.pos + 1
  return true
end

local function read_array(walk, tree)
  local item, start = open_container(walk, tree, f.value.array)
  local texts = {}
  local done = at_end(walk, 0x0B)
  while done == false do
    local text = read_value(walk, item)
    if not text then break end
    texts[#texts + 1] = text
    done = at_end(walk, 0x0B)
  end
  close_container(walk, item, start, #texts, "members")
  if not done then return nil end
  return "[" .. table.concat(texts, ", ") .. "]"
end

-- Reads a key and its value into `entries`.
local function read_entry(walk, tree, entries)
  local start = walk.pos
  local entry = tree:add(walk.tvb(start, walk.stop - start), "Entry")
  local key_text, key = read_value(walk, entry)
  if not key_text then return nil end
  entry:set_text(label(key_text))
  if not key then fail_late(walk, "only hash keys of type string are supported", start) end
  local key_end = math.min(walk.pos, walk.stop)
  local name = key_text:match('^"(.*)"$') or key_text
  entry:add(f.value.key, walk.tvb(start, key_end - start), name):set_generated()
  local text = read_value(walk, entry)
  if not text then return nil end
  entry:set_text(label(key_text .. "=>" .. text))
  entry:set_len(math.min(walk.pos, walk.stop) - start)
  if key and not walk.text_cut then entries[key] = text end
  return true
end

local function read_hash(walk, tree)
  local item, start = open_container(walk, tree, f.value.hash)
  local entries, count = {}, 0
  local done = at_end(walk, 0x09)
  while done == false do
    if not read_entry(walk, item, entries) then break end
    count = count + 1
    done = at_end(walk, 0x09)
  end
  close_container(walk, item, start, count, "entries")
  if not done then return nil end
  return hash_text(entries)
end

local function add_plain(walk, tree, field, text, ...)
  tree:add(field, walk.tvb(walk.pos - 1, 1), ...)
  return take_text(walk, text)
end

local readers = {
  [0x00] = function(walk, tree) return add_plain(walk, tree, f.value["nil"], "nil") end,
  [0x01] = function(walk, tree) return add_plain(walk, tree, f.value.bool, "false", false) end,
  [0x02] = function(walk, tree) return add_plain(walk, tree, f.value.bool, "true", true) end,
  [0x03] = function(walk, tree) return read_float(walk, tree, f.value.float, 4) end,
  [0x04] = function(walk, tree) return read_float(walk, tree, f.value.double, 8) end,
  [0x05] = read_string,
  [0x06] = read_string,
  [0x07] = read_string,
  [0x08] = read_hash,
  [0x0A] = read_array,
}

-- Returns the value's text, and the bytes of a string.
function read_value(walk, tree)
  if not spend(walk) then return nil end
  walk.depth = walk.depth + 1
  if walk.depth > MAX_DEPTH then return fail(walk, "maxdepth exceeded") end
  if walk.pos >= walk.stop then return fail(walk, "buffer underrun") end
  local text, bytes
  local transport_type = walk.bytes:byte(walk.pos + 1)
  if transport_type >= 0x80 then
    text = read_int(walk, tree)
  else
    walk.pos = walk.pos + 1
    local reader = readers[transport_type]
    if not reader then return fail(walk, "unrecognized protocol transport type") end
    text, bytes = reader(walk, tree, transport_type)
  end
  walk.depth = walk.depth - 1
  return text, bytes
end

-- Messages ---------------------------------------------------------------------------------------------------

-- Reads the message at the walk's position. Returns its text, and its tree.
local function read_message(walk, tree)
  walk.depth, walk.text_cut = 0, false
  walk.late_fault, walk.late_pos = nil, nil
  local start = walk.pos
  local item = tree:add(walk.tvb(start, walk.stop - start), "Message")
  local text = read_value(walk, item)
  item:set_len(math.min(walk.pos, walk.stop) - start)
  if text then item:set_text("Message: " .. label(text)) end
  return text, item
end

-- Shows the fault that ended a message, or the native library's fault for it.
local function report_fault(walk, item)
  local fault, pos = walk.fault or walk.late_fault, walk.fault and walk.fault_pos or walk.late_pos
  local kind = fault:find("hash keys", 1, true) and not_native or malformed
  report(item, pos < walk.stop and walk.tvb(pos, walk.stop - pos), kind, fault)
  return fault
end

-- Shows the messages in [start, stop) of the packet. Returns a summary of them.
local function add_messages(tvb, bytes, tree, start, stop)
  local walk = { tvb = tvb, bytes = bytes, pos = start, stop = stop }
  local count, first_text, first_fault = 0, nil, nil
  while walk.pos < stop do
    local message_start = walk.pos
    local text, item = read_message(walk, tree)
    if walk.exhausted then
      local rest = tree:add(f.undecoded, tvb(message_start, stop - message_start))
      rest:add_proto_expert_info(cut, "Too many values in one packet: decoding stopped here")
      break
    end
    if (walk.fault or walk.late_fault) and not first_fault then
      first_fault = report_fault(walk, item)
    elseif text and not first_fault then
      local message = item:add(f.message, tvb(message_start, walk.pos - message_start), text):set_generated()
      if walk.text_cut then message:add_proto_expert_info(cut, "The text is truncated") end
      count, first_text = count + 1, first_text or text
    end
    if walk.fault then break end
  end
  tree:add(f.messages, count):set_generated()
  return first_fault and "[" .. first_fault .. "]" or first_text and label(first_text) or ""
end

-- Frames -----------------------------------------------------------------------------------------------------

local function big_endian(bytes, pos, size)
  local number = 0
  for i = pos + 1, pos + size do number = number * 256 + bytes:byte(i) end
  return number
end

-- Reads the header at `pos`, where a start marker is. Returns nil while some of it is missing.
local function read_header(bytes, pos)
  if #bytes - pos < 2 then return nil end
  local header = { start = pos, layout_byte = bytes:byte(pos + 2) }
  header.size = header.layout_byte % 2 == 1 and 8 or 12
  if #bytes - pos < header.size then return nil end
  header.seq = big_endian(bytes, pos + 2, 2)
  header.length = big_endian(bytes, pos + 4, header.size == 8 and 4 or 3)
  header.payload_start = pos + header.size
  header.payload_end = header.payload_start + header.length
  if header.size == 12 then
    if bytes:byte(pos + 12) ~= HEADER_CHECK then header.error = "Bad Header CRC" end
    header.payload_error = big_endian(bytes, pos + 7, 4) ~= PAYLOAD_CHECK and "Bad Payload Data CRC" or nil
  elseif header.length > SOFT_LIMIT then
    header.error = "Payload size exceeds soft limit"
  end
  return header
end

-- A header with a wrong check byte is meaningless: its other fields are not shown.
local function add_header(tvb, tree, header)
  local pos = header.start
  local readable = header.error ~= "Bad Header CRC"
  tree:add(f.marker, tvb(pos, 1))
  tree:add(f.layout_byte, tvb(pos + 1, 1))
  tree:add(f.layout, tvb(pos + 1, 1), header.size):set_generated()
  if readable then tree:add(f.seq, tvb(pos + 2, 2)) end
  if readable then tree:add(f.length, tvb(pos + 4, header.size == 8 and 4 or 3)) end
  if header.size == 12 then
    if readable then tree:add(f.payload_check, tvb(pos + 7, 4)) end
    tree:add(f.header_check, tvb(pos + 11, 1))
  end
  if header.error then report(tree, tvb(pos, header.size), malformed, header.error) end
end

-- Shows as much of a frame as the packet holds, and returns its line for the packet list.
local function add_frame(tvb, bytes, tree, header)
  local last = header.error and header.payload_start or math.min(header.payload_end, #bytes)
  local item = tree:add(vorn, tvb(header.start, last - header.start))
  local title = string.format("Seq=%d Len=%d", header.seq, header.length)
  add_header(tvb, item, header)
  if header.error then
    item:append_text(", " .. header.error)
    return "[" .. header.error .. "]"
  end
  item:append_text(", " .. title)
  if last > header.payload_start then
    item:add(f.payload, tvb(header.payload_start, last - header.payload_start))
  end
  if last < header.payload_end then
    item:add_proto_expert_info(cut, "Payload not reassembled")
    return title .. " [not reassembled]"
  end
  if header.payload_error then
    report(item, tvb(header.start + 7, 4), malformed, header.payload_error)
    return title .. " [" .. header.payload_error .. "]"
  end
  return title .. " " .. add_messages(tvb, bytes, item, header.payload_start, header.payload_end)
end

local function add_stretch(tvb, tree, field, start, size, kind, text)
  local item = tree:add(vorn, tvb(start, size))
  item:append_text(", " .. size .. (size == 1 and " byte " or " bytes ") .. text)
  local number = item:add(field, tvb(start, size), size)
  if kind then number:add_proto_expert_info(kind, "Bytes before a start marker, skipped") end
end

-- Payloads that are not reassembled ---------------------------------------------------------------------------
--
-- Their bytes in later segments must not be searched for start markers. They are counted, because a script gets no
-- sequence numbers when Wireshark builds no tree, as on its first pass over a capture.

local pending = {} -- by direction of a connection: how many bytes are still to come
local continued = {} -- by packet and place in it: how many the first pass found there, for the later passes

local function direction(pinfo)
  return table.concat({ tostring(pinfo.src), pinfo.src_port, tostring(pinfo.dst), pinfo.dst_port }, " ")
end

local function remember_rest(pinfo, size)
  if not pinfo.visited then pending[direction(pinfo)] = size end
end

-- Returns how many bytes at the start of the packet belong to such a payload.
local function bytes_continued(tvb, pinfo)
  local place = pinfo.number .. " " .. tvb:offset()
  if pinfo.visited then return continued[place] or 0 end
  local rest = next(pending) and pending[direction(pinfo)]
  if not rest then return 0 end
  pending[direction(pinfo)] = rest > tvb:reported_len() and rest - tvb:reported_len() or nil
  continued[place] = math.min(rest, tvb:len())
  return continued[place]
end

function vorn.init()
  pending, continued = {}, {}
end

-- Streams ----------------------------------------------------------------------------------------------------

local function wait_for(pinfo, header_start, size)
  pinfo.desegment_offset = header_start
  pinfo.desegment_len = size
end

-- Shows the complete frames of the packet and asks for the rest of an incomplete one. Appends a line for each frame.
local function add_frames(tvb, pinfo, tree, lines)
  local bytes = tvb:raw()
  local pos = bytes_continued(tvb, pinfo)
  if pos > 0 then add_stretch(tvb, tree, f.continued, 0, pos, nil, "of a payload that is not reassembled") end
  while pos < #bytes do
    local marker = bytes:find(string.char(START_MARKER), pos + 1, true)
    local start = marker and marker - 1 or #bytes
    if start > pos then add_stretch(tvb, tree, f.skipped, pos, start - pos, outside, "skipped") end
    if not marker then return end
    local header = read_header(bytes, start)
    if not header then
      if pinfo.can_desegment > 0 then return wait_for(pinfo, start, DESEGMENT_ONE_MORE_SEGMENT) end
      tree:add(vorn, tvb(start)):add_proto_expert_info(cut, "Header not reassembled")
      return
    end
    if not header.error and header.payload_end > #bytes then
      if pinfo.can_desegment > 0 and header.length <= vorn.prefs.max_frame * 2 ^ 20 then
        return wait_for(pinfo, start, header.payload_end - #bytes)
      end
      remember_rest(pinfo, math.max(0, header.payload_end - tvb:reported_len()))
    end
    lines[#lines + 1] = add_frame(tvb, bytes, tree, header)
    -- A receiver that resets its frame after an error continues after the bytes that the frame consumed.
    pos = header.error and header.payload_start or header.payload_end
  end
end

function vorn.dissector(tvb, pinfo, tree)
  if tvb:len() == 0 then return end
  values_left, text_left = vorn.prefs.max_values, MAX_TEXT
  local lines = {}
  add_frames(tvb, pinfo, tree, lines)
  pinfo.cols.protocol = "VORN"
  if #lines > 0 then
    -- Another call may add frames of the same segment: its lines go after the fence.
    pinfo.cols.info:set(table.concat(lines, " | ", 1, math.min(#lines, 10)) .. " ")
    pinfo.cols.info:fence()
  end
end

-- Whether a stream with this beginning is worth trying: only headers from an ordinary writer count.
local function begins_with_frame(bytes)
  local header = bytes:byte(1) == START_MARKER and read_header(bytes, 0)
  if not header or header.error or header.payload_error then return false end
  if header.size == 12 then return header.layout_byte == 0 end
  local behind = bytes:byte(9)
  if header.layout_byte ~= 1 or header.length > vorn.prefs.max_frame * 2 ^ 20 then return false end
  if not behind then return true end
  if header.length == 0 then return behind == START_MARKER end
  return behind >= 0x80 or readers[behind] ~= nil
end

vorn:register_heuristic("tcp", function(tvb, pinfo, tree)
  if tvb:len() == 0 or not begins_with_frame(tvb:raw(0, math.min(tvb:len(), 13))) then return false end
  pinfo.conversation = vorn
  vorn.dissector(tvb, pinfo, tree)
  return true
end)

DissectorTable.get("tcp.port"):add_for_decode_as(vorn)
