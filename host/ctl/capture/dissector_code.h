// What the dissector does: in Lua, around the tables of records and methods.
#pragma once

namespace ctl {

constexpr char kDissectorHead[] =
    R"lua(-- Written by tarnctl dissector. Put it among Wireshark's plugins, or: tshark -X lua_script:FILE
local records, methods = {}, {}
)lua";

constexpr char kDissectorCode[] = R"lua(
local kinds = {[1]="request", [2]="one-way request", [3]="reply", [4]="error", [5]="cancel"}
local REQUEST, ONEWAY, REPLY, ERROR = 1, 2, 3, 4
local HEADER = 136

local tarn = Proto("tarn", "Tarn diagnosis")
local head = {
  kind = ProtoField.uint16("tarn.kind", "kind", base.DEC, kinds),
  id = ProtoField.uint64("tarn.id", "call id"),
  type_hash = ProtoField.uint32("tarn.type_hash", "type hash", base.HEX),
  deadline = ProtoField.uint32("tarn.deadline", "deadline in ms"),
  status = ProtoField.uint32("tarn.status", "status", base.DEC, errors),
  error = ProtoField.uint32("tarn.error", "error", base.DEC, errors),
  length = ProtoField.uint32("tarn.length", "length of the payload"),
  service = ProtoField.string("tarn.service", "service"),
  method = ProtoField.string("tarn.method", "method"),
  explanation = ProtoField.string("tarn.explanation", "explanation"),
  text = ProtoField.string("tarn.text", "text"),
  call = ProtoField.framenum("tarn.call", "answers", base.NONE, frametype.REQUEST),
}
local malformed = ProtoExpert.new("tarn.malformed", "no valid message", expert.group.MALFORMED, expert.severity.ERROR)
tarn.experts = {malformed}

local function new_field(name, slot)
  if slot.look == "binary" and slot.shape == "bytes" then return ProtoField.bytes(name, slot.name) end
  if slot.shape == "bytes" or slot.look == "letter" then return ProtoField.string(name, slot.name) end
  if slot.look == "signed" then return ProtoField.int32(name, slot.name) end
  local make = ({[1]=ProtoField.uint8, [2]=ProtoField.uint16, [4]=ProtoField.uint32, [8]=ProtoField.uint64})[slot.width]
  return make(name, slot.name, slot.look == "hex" and base.HEX or base.DEC, slot.names)
end

local fields = {}
for _, field in pairs(head) do fields[#fields + 1] = field end
for _, record in ipairs(records) do
  for _, slot in ipairs(record.slots) do
    if not slot.inside then
      slot.field = new_field("tarn." .. record.type .. "." .. slot.key, slot)
      fields[#fields + 1] = slot.field
    end
  end
end
tarn.fields = fields

-- A range outside of the message is an error, which the caller catches.
local function u16(message, at) return message(at, 2):le_uint() end
local function u32(message, at) return message(at, 4):le_uint() end

local read_table

local function add_number(message, at, slot, tree)
  local range = message(at, slot.width)
  if slot.look == "letter" then
    tree:add(slot.field, range, string.char(range:le_uint() % 256))
  else
    tree:add_le(slot.field, range)
  end
end

local function add_bytes(message, at, count, slot, tree)
  if slot.look == "binary" then
    if count > 0 then tree:add(slot.field, message(at, count)) end
    return
  end
  local text = count > 0 and message(at, count):raw():gsub("%z.*", "") or ""
  tree:add(slot.field, message(at - 4, count + 4), text)
end

local function read_field(message, at, slot, tree)
  if slot.shape == "scalar" then return add_number(message, at, slot, tree) end
  if slot.shape == "table" then
    return read_table(message, at + u32(message, at), records[slot.inside], tree:add(message(at, 4), slot.name))
  end
  at = at + u32(message, at)
  local count = u32(message, at)
  at = at + 4
  if slot.shape == "bytes" then return add_bytes(message, at, count, slot, tree) end
  for i = 0, count - 1 do
    if slot.shape == "numbers" then
      add_number(message, at + slot.width * i, slot, tree)
    else
      local word = at + 4 * i
      local element = tree:add(message(word, 4), string.format("%s[%d]", slot.name, i))
      read_table(message, word + u32(message, word), records[slot.inside], element)
    end
  end
end

function read_table(message, at, record, tree)
  local vtable = at - message(at, 4):le_int()
  local length = u16(message, vtable)
  message(vtable, length)
  for i, slot in ipairs(record.slots) do
    local entry = 2 + 2 * i
    local offset = entry + 2 <= length and u16(message, vtable + entry) or 0
    if offset ~= 0 then read_field(message, at + offset, slot, tree) end
  end
end

local function read_message(message, number, tree)
  if not number then return end
  local record = records[number]
  local inner = tree:add(tarn, message(), record.type)
  if not pcall(function() read_table(message, u32(message, 0), record, inner) end) then
    inner:add_proto_expert_info(malformed)
  end
end

-- Which request an answer is to: a client uses an id again when its call has ended.
local connection_of = Field.new("frame.interface_id")
local open, answered = {}, {}

function tarn.init()
  open, answered = {}, {}
end

local function request_of(buffer, pinfo, kind)
  local key = tostring(connection_of()) .. ":" .. tostring(buffer(8, 8):le_uint64())
  if not pinfo.visited then
    if kind == REQUEST then
      local name = buffer(40, 32):stringz() .. "." .. buffer(72, 64):stringz()
      open[key] = {number = pinfo.number, name = name}
    elseif open[key] then
      answered[pinfo.number] = open[key]
      if kind == REPLY or kind == ERROR then open[key] = nil end
    end
  end
  return answered[pinfo.number]
end

local function add_header(buffer, kind, tree)
  tree:add_le(head.kind, buffer(6, 2))
  tree:add_le(head.id, buffer(8, 8))
  tree:add_le(head.type_hash, buffer(16, 4))
  if kind == REQUEST or kind == ONEWAY then
    tree:add_le(head.deadline, buffer(20, 4))
    tree:add(head.service, buffer(40, 32), buffer(40, 32):stringz())
    tree:add(head.method, buffer(72, 64), buffer(72, 64):stringz())
  elseif kind == ERROR then
    tree:add_le(head.status, buffer(24, 4))
    tree:add_le(head.error, buffer(28, 4))
  end
  tree:add_le(head.length, buffer(32, 4))
end

local function add_payload(buffer, kind, name, tree)
  local size = buffer:len() - HEADER
  local method = methods[name]
  if kind == ERROR and size > 0 then tree:add_packet_field(head.text, buffer(HEADER), ENC_UTF_8) end
  if size == 0 or kind == ERROR then return end
  local explanation = kind == REPLY and u32(buffer, 20) or 0
  if explanation > 0 and explanation <= size then
    tree:add_packet_field(head.explanation, buffer(buffer:len() - explanation, explanation), ENC_UTF_8)
    size = size - explanation
  end
  if method and size > 0 then
    read_message(buffer(HEADER, size):tvb(), kind == REPLY and method.reply or method.request, tree)
  end
end

function tarn.dissector(buffer, pinfo, root)
  if buffer:len() < HEADER or buffer(0, 4):string() ~= "TRPC" then return 0 end
  local kind = u16(buffer, 6)
  local request = request_of(buffer, pinfo, kind)
  local name = buffer(40, 32):stringz() .. "." .. buffer(72, 64):stringz()
  local tree = root:add(tarn, buffer())
  add_header(buffer, kind, tree)
  if request then
    name = request.name
    tree:add(head.method, buffer(0, 0), name:match("%.(.*)")):set_generated()
    tree:add(head.call, buffer(0, 0), request.number):set_generated()
  end
  pinfo.cols.protocol = "TARN"
  pinfo.cols.info = string.format("%s %s", kinds[kind] or "?", #name > 1 and name or "")
  add_payload(buffer, kind, name, tree)
  return buffer:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, tarn)
)lua";

} // namespace ctl
