-- Wireshark and tshark dissector for ferrolt's device link: the 64-byte
-- blocks on the bulk pipes of the device's vendor interface (interface 4,
-- class 0xFF). A device packet is a type byte, a 32-bit little-endian number,
-- a length byte, 57 payload bytes and a CRC-8 over the 63 bytes before it; a
-- raw text block is a zero-terminated text from byte 0, with no type and no
-- CRC. A transfer that brought several blocks at once is split into them.
--
-- It decodes captures of FERROLT_TRACE and ferrolt-devsim --trace, and
-- captures of a real device made with usbmon (Linux) or USBPcap (Windows):
-- where the capture holds the device's descriptors, by the interface class
-- of the endpoint; where it does not (started after the device was plugged
-- in), by the look of the blocks. Nothing to set by hand.
--
-- Fields: ferrolt.type, ferrolt.number, ferrolt.length, ferrolt.payload,
-- ferrolt.text, ferrolt.crc, ferrolt.crc.status (good or bad),
-- ferrolt.rawtext, ferrolt.nack.refused and ferrolt.nack.reason.

local ferrolt = Proto("ferrolt", "ferrolt device link")

local BLOCK_SIZE = 64
local NUMBER_OFFSET = 1
local LENGTH_OFFSET = 5
local PAYLOAD_OFFSET = 6
local PAYLOAD_SIZE = 57
local CRC_OFFSET = 63
local VENDOR_SPECIFIC_CLASS = 0xFF
local NACK = 10

local TYPE_NAMES = {
  [1] = "Upgrade", [2] = "Version", [3] = "Logs", [4] = "Cli", [5] = "Upload",
  [6] = "Download", [7] = "Cancel", [8] = "Ort", [NACK] = "Nack",
}

-- The raw text blocks the host sends; a block that merely looks like text is
-- taken for one only where the interface is known to be the device's.
local RAW_TEXT_STARTS = { "Starting Upgrade ", "Starting upload ", "Ending upload", "\rreboot\r" }

local fields = ferrolt.fields
fields.type = ProtoField.string("ferrolt.type", "Type")
fields.number = ProtoField.uint32("ferrolt.number", "Number")
fields.length = ProtoField.uint8("ferrolt.length", "Length")
fields.payload = ProtoField.bytes("ferrolt.payload", "Payload")
fields.text = ProtoField.string("ferrolt.text", "Text")
fields.crc = ProtoField.uint8("ferrolt.crc", "CRC", base.HEX)
fields.crc_status = ProtoField.string("ferrolt.crc.status", "CRC status")
fields.rawtext = ProtoField.string("ferrolt.rawtext", "Raw text")
fields.refused = ProtoField.uint32("ferrolt.nack.refused", "Refused packet")
fields.reason = ProtoField.string("ferrolt.nack.reason", "Refused for")

-- CRC-8: polynomial 0x07, initial value 0, not reflected, result
-- complemented. Written with arithmetic alone, so it runs on every Lua that
-- Wireshark has shipped with.
local function xor8(a, b)
  local result, bit = 0, 1
  for _ = 1, 8 do
    if a % 2 ~= b % 2 then result = result + bit end
    a, b, bit = math.floor(a / 2), math.floor(b / 2), bit * 2
  end
  return result
end

local CRC_TABLE = {}
for value = 0, 255 do
  local c = value
  for _ = 1, 8 do
    if c >= 0x80 then c = xor8((c * 2) % 256, 0x07) else c = (c * 2) % 256 end
  end
  CRC_TABLE[value] = c
end

-- Over count bytes of raw (a Lua string) from offset (0-based).
local function crc8(raw, offset, count)
  local c = 0
  for i = offset + 1, offset + count do c = CRC_TABLE[xor8(c, raw:byte(i))] end
  return 255 - c
end

local function is_text_byte(b)
  return (b >= 0x20 and b < 0x7F) or b == 0x09 or b == 0x0A or b == 0x0D
end

-- The zero-terminated text of size bytes from offset (0-based), read as the
-- receiver reads it; nil when it is empty or not printable.
local function text_at(raw, offset, size)
  local stop = offset + size
  local zero = raw:find("\0", offset + 1, true)
  if zero ~= nil and zero <= stop then stop = zero - 1 end
  if stop == offset then return nil end
  for i = offset + 1, stop do
    if not is_text_byte(raw:byte(i)) then return nil end
  end
  return raw:sub(offset + 1, stop)
end

-- Control characters spelled out, trailing spaces dropped: for one line.
local function shown(text)
  return (text:gsub("\r", "\\r"):gsub("\n", "\\n"):gsub("\t", "\\t"):gsub(" +$", ""))
end

local function is_raw_command(text)
  for _, start in ipairs(RAW_TEXT_STARTS) do
    if text:sub(1, #start) == start then return true end
  end
  return false
end

-- What the block at offset is: "packet" (a known type), "text" (a raw text
-- block), or nil.
local function kind_of(raw, offset)
  if TYPE_NAMES[raw:byte(offset + 1)] ~= nil then return "packet" end
  if text_at(raw, offset, BLOCK_SIZE) ~= nil then return "text" end
  return nil
end

local function crc_good(raw, offset)
  return crc8(raw, offset, CRC_OFFSET) == raw:byte(offset + CRC_OFFSET + 1)
end

local function dissect_packet(raw, tvb, offset, tree)
  local packet_type = raw:byte(offset + 1)
  local number = tvb(offset + NUMBER_OFFSET, 4):le_uint()
  local length = raw:byte(offset + LENGTH_OFFSET + 1)
  local good = crc_good(raw, offset)
  tree:add(fields.type, tvb(offset, 1), TYPE_NAMES[packet_type])
  tree:add_le(fields.number, tvb(offset + NUMBER_OFFSET, 4))
  tree:add(fields.length, tvb(offset + LENGTH_OFFSET, 1))
  -- A length past the payload is cut to it, as the receiver does.
  local used = math.min(length, PAYLOAD_SIZE)
  if used > 0 then tree:add(fields.payload, tvb(offset + PAYLOAD_OFFSET, used)) end
  local text = text_at(raw, offset + PAYLOAD_OFFSET, PAYLOAD_SIZE)
  if text ~= nil then tree:add(fields.text, tvb(offset + PAYLOAD_OFFSET, #text), text) end
  tree:add(fields.crc, tvb(offset + CRC_OFFSET, 1))
  tree:add(fields.crc_status, tvb(offset + CRC_OFFSET, 1), good and "good" or "bad")

  local summary
  if packet_type == NACK then
    local sequence = raw:byte(offset + PAYLOAD_OFFSET + 1) ~= 0
    tree:add_le(fields.refused, tvb(offset + NUMBER_OFFSET, 4))
    tree:add(fields.reason, tvb(offset + PAYLOAD_OFFSET, 1), sequence and "sequence error" or "CRC error")
    summary = string.format("NACK #%d", number)
  elseif number == 0 and text ~= nil then
    summary = string.format('%s "%s"', TYPE_NAMES[packet_type], shown(text))
  else
    summary = string.format("%s #%d len %d", TYPE_NAMES[packet_type], number, length)
  end
  if not good then summary = summary .. " [bad CRC]" end
  return summary
end

local function dissect_block(raw, tvb, offset, tree)
  local subtree = tree:add(ferrolt, tvb(offset, BLOCK_SIZE))
  local kind = kind_of(raw, offset)
  local summary
  if kind == "packet" then
    summary = dissect_packet(raw, tvb, offset, subtree)
  elseif kind == "text" then
    local text = text_at(raw, offset, BLOCK_SIZE)
    subtree:add(fields.rawtext, tvb(offset, #text), text)
    summary = string.format('"%s"', shown(text))
  else
    summary = string.format("unknown block (first byte 0x%02x)", raw:byte(offset + 1))
  end
  subtree:append_text(": " .. summary)
  return summary
end

-- Every block of a transfer whose length is whole blocks; 0 for anything else.
function ferrolt.dissector(tvb, pinfo, tree)
  local length = tvb:len()
  if length == 0 or length % BLOCK_SIZE ~= 0 then return 0 end
  local raw = tvb:raw(0, length)
  local summaries = {}
  for offset = 0, length - BLOCK_SIZE, BLOCK_SIZE do
    summaries[#summaries + 1] = dissect_block(raw, tvb, offset, tree)
  end
  pinfo.cols.protocol:set("ferrolt")
  pinfo.cols.info:set(table.concat(summaries, ", "))
  return length
end

-- For captures that hold no descriptors: every block is a packet of a known
-- type or a raw command text, and at least one proves it (a good CRC, a
-- NACK, whose CRC the receiver does not check, or a raw command).
local function heuristic(tvb, pinfo, tree)
  local length = tvb:len()
  if length == 0 or length % BLOCK_SIZE ~= 0 then return false end
  local raw = tvb:raw(0, length)
  local proven = false
  for offset = 0, length - BLOCK_SIZE, BLOCK_SIZE do
    local kind = kind_of(raw, offset)
    if kind == "text" and not is_raw_command(text_at(raw, offset, BLOCK_SIZE)) then return false end
    if kind == nil then return false end
    proven = proven or kind == "text" or raw:byte(offset + 1) == NACK or crc_good(raw, offset)
  end
  if not proven then return false end
  ferrolt.dissector(tvb, pinfo, tree)
  return true
end

DissectorTable.get("usb.bulk"):add(VENDOR_SPECIFIC_CLASS, ferrolt)
ferrolt:register_heuristic("usb.bulk", heuristic)
