-- Velto protocol dissector for Wireshark and tshark (Lua 5.2, Wireshark 4.0+).
-- Decodes the packet envelope, every field of the thirteen packs, and the
-- device-management messages that node 1, object 1 sends and receives when a
-- carrier holds them whole. It never reads past what it checked is there:
-- input that is cut short, a text longer than its cap or a byte array longer
-- than the packet gets expert info, and the rest of the pack is left undecoded.
-- UDP port 1881 (a preference); a heuristic dissector covers other ports.

local velto = Proto("velto", "Velto Protocol")

-- Value names --------------------------------------------------------------

local PACK_NAMES = {
    [1] = "NewBornDevicePack", [2] = "AdoptionOfferPack", [3] = "NetworkJoinPack",
    [4] = "JoinAcceptedPack", [10] = "ConfigSummaryPack", [15] = "GetObjectInfoPack",
    [16] = "ObjectInfoPack", [19] = "ConfigurationCompletePack", [20] = "PingPongPack",
    [31] = "MessageCarrierPack", [32] = "MessageCarrierACKPack",
    [33] = "NotificationSubscriptionPack", [34] = "MessageErrorPack",
}
local SIG_TYPES = { [0] = "NO_SIGNATURE_TYPE", [1] = "HMAC_SHA1_TYPE", [2] = "HMAC_SHA256_TYPE" }
local SIG_SIZES = { [1] = 20, [2] = 32 }
local ENC_TYPES = { [0] = "NO_ENCRYPTION_TYPE", [1] = "SIMPLE_XOR_TYPE", [2] = "AES128_XXX_TYPE" }
local MSG_CATS = { [1] = "NOTIFICATION_MSGCAT", [2] = "DIRECT_MSGCAT" }
local ADDR_TYPES = { [0] = "None", [1] = "IPV4", [2] = "IPV6", [3] = "XBEE16", [4] = "XBEE64", [5] = "BLUETOOTH" }
local IFACE_TYPES = {
    [0] = "VELTO", [11] = "UNICAST_UDP", [12] = "MCAST_UDP", [13] = "SVR_TCP", [14] = "CLNT_TCP",
    [15] = "SVR_HTTP", [16] = "CLNT_HTTP", [17] = "CLNT_HTTPS",
}
local PING_KINDS = { [0] = "PING", [1] = "PONG" }
local SUBSCRIBE = { [0] = "unsubscribe", [1] = "subscribe" }
local ERROR_CODES = {
    [1] = "DESERIALIZATION_ERROR", [2] = "NOTCONNECTED_ERROR", [10] = "PERMISSION_DENIED",
    [1001] = "UNKNOWN_MESSAGE_ERROR",
}
local NODE_STATES = {
    [0] = "UNKNOW", [1] = "IGNORE", [2] = "UNINIT", [3] = "ADOPTION_SENT", [4] = "INITIALIZING",
    [5] = "INITIALIZED", [6] = "CONNECTED", [7] = "DISCONNECTED",
}
local DEVMGMT_MSGS = {
    [1] = "RequestBasicDeviceListMsg", [2] = "BasicDeviceListMsg",
    [3] = "RequestBasicObjectInfoMsg", [4] = "BasicObjectInfoMsg",
}

-- Bit sets: the flag fields get one sub-field per bit.
local FLAG_BITS = {
    ["join.generalFlags"] = { { 1, "HaveDirectInterface" }, { 2, "HaveManagedInterface" },
        { 4, "PreferManagedOverDirect" }, { 8, "HaveConfigSummary" }, { 16, "RequireEncryption" } },
    ["joinaccepted.flags"] = { { 8, "ConfigSummaryRequest" }, { 16, "StartUsingEncryption" } },
    ["carrier.commands"] = { { 1, "MSG_START" }, { 2, "MSG_STOP" }, { 4, "REQUIRE_ACK" } },
}
local VALUE_NAMES = {
    ["join.addrType"] = ADDR_TYPES, ["joinaccepted.encAlg"] = ENC_TYPES,
    ["objectinfo.ifaceType"] = IFACE_TYPES, ["pingpong.pingOrPong"] = PING_KINDS,
    ["carrier.msgCat"] = MSG_CATS, ["ack.msgCat"] = MSG_CATS, ["subscription.subscribe"] = SUBSCRIBE,
    ["error.errorCode"] = ERROR_CODES, ["error.category"] = MSG_CATS,
    ["devlist.status"] = NODE_STATES, ["objinfo.ifaceType"] = IFACE_TYPES,
}

-- Layouts: every pack's and carried message's fields in wire order. A field
-- is {name, kind, cap}: kinds u8, u16, u32, u64, text (cap characters and a
-- NUL) and bytes (VLQ size, then that many bytes; at most cap kept).

local PACKS = {
    [1] = { abbr = "newborn", { "duid", "text", 32 }, { "specs", "text", 128 }, { "intVer", "u8" },
        { "prevn", "text", 32 }, { "prevdom", "text", 32 } },
    [2] = { abbr = "adoption", { "offer", "u8" }, { "svrNodeId", "u8" }, { "duid", "text", 32 },
        { "nname", "text", 32 }, { "domain", "text", 32 } },
    [3] = { abbr = "join", { "duid", "text", 32 }, { "nname", "text", 32 }, { "domain", "text", 32 },
        { "generalFlags", "u8" }, { "clientRand", "u64" }, { "addrType", "u8" }, { "hubPortNo", "u16" },
        { "addrValue", "bytes", 32 } },
    [4] = { abbr = "joinaccepted", { "duid", "text", 32 }, { "nodeId", "u16" }, { "flags", "u8" },
        { "svrRand", "u64" }, { "encAlg", "u8" }, { "sessionKey", "bytes", 32 } },
    [10] = { abbr = "configsummary", { "duid", "text", 32 }, { "noOfObjects", "u8" },
        { "maxNoOfObjects", "u8" }, { "maxPacketSize", "u16" }, { "maxMessageSize", "u32" },
        { "maxNoOfDirectUsers", "u16" }, { "random", "u64" } },
    [15] = { abbr = "getobjectinfo", { "objectNo", "u8" } },
    [16] = { abbr = "objectinfo", { "objectNo", "u8" }, { "groupNo", "u8" }, { "ifaceType", "u8" },
        { "name", "text", 32 }, { "interface", "text", 32 }, { "nParam1", "u32" }, { "nParam2", "u32" },
        { "sParam1", "text", 32 }, { "sParam2", "text", 32 }, { "lnParam", "u64" } },
    [19] = { abbr = "configcomplete", { "serverTimestamp", "u64" }, { "dev2HubSequence", "u32" },
        { "hub2DevSequence", "u32" } },
    [20] = { abbr = "pingpong", { "pingOrPong", "u8" }, { "replyKey", "u64" }, { "random", "u64" } },
    [31] = { abbr = "carrier", { "msgCat", "u8" }, { "fromDeviceId", "u16" }, { "fromObjectNo", "u8" },
        { "msgId", "u16" }, { "toDeviceId", "u16" }, { "toObjectNo", "u8" }, { "msgNo", "u32" },
        { "packetStart", "u32" }, { "msgSize", "u32" }, { "commands", "u8" }, { "checksum", "u32" },
        { "payload", "bytes", 326 } },
    [32] = { abbr = "ack", { "msgCat", "u8" }, { "fromDeviceId", "u16" }, { "fromObjectNo", "u8" },
        { "msgId", "u16" }, { "toDeviceId", "u16" }, { "toObjectNo", "u8" }, { "msgNo", "u32" },
        { "lastSeqNo", "u32" } },
    [33] = { abbr = "subscription", { "nodeId", "u16" }, { "objectNo", "u8" }, { "eventId", "u16" },
        { "subscribe", "u8" } },
    -- As senders write it; the hub's own reader skips toObjectNo (it only sends this pack).
    [34] = { abbr = "error", { "errorCode", "u32" }, { "category", "u8" }, { "fromNodeId", "u16" },
        { "fromObjectNo", "u8" }, { "msgId", "u16" }, { "toNodeId", "u16" }, { "toObjectNo", "u8" },
        { "optErorMsg", "text", 32 } },
}

-- Device-management messages of node 1, object 1, by message id. "each"
-- repeats for the number of entries given by a VLQ size after "head".
local DEVMGMT = {
    [1] = { abbr = "devlistreq", head = { { "flags", "u8" }, { "matchSpecs", "text", 128 },
        { "withName", "text", 32 }, { "haveObjectWithIface", "text", 32 } } },
    [2] = { abbr = "devlist", head = {}, entry = "Device", each = { { "id", "u16" }, { "duid", "text", 32 },
        { "specs", "text", 128 }, { "intVer", "u8" }, { "status", "u8" }, { "hubId", "u8" },
        { "nname", "text", 32 }, { "domain", "text", 32 }, { "noOfObjects", "u8" } } },
    [3] = { abbr = "objinforeq", head = { { "nodeId", "u16" } }, ignoreRest = true },
    [4] = { abbr = "objinfo", head = { { "nodeId", "u16" } }, entry = "Object", each = { { "objectNo", "u8" },
        { "groupNo", "u8" }, { "ifaceType", "u8" }, { "name", "text", 32 }, { "interface", "text", 32 },
        { "interfaceId", "text", 128 } } },
}

-- Fields ---------------------------------------------------------------------

local F = {
    id = ProtoField.uint8("velto.id", "id", base.DEC, PACK_NAMES),
    hubid = ProtoField.uint8("velto.hubid", "hubId", base.DEC),
    devid = ProtoField.uint16("velto.devid", "devId", base.DEC),
    packetno = ProtoField.uint32("velto.packetno", "packetNo", base.DEC),
    sigtype = ProtoField.uint8("velto.sigtype", "Signature type", base.DEC, SIG_TYPES),
    enctype = ProtoField.uint8("velto.enctype", "encType", base.DEC, ENC_TYPES),
    signature = ProtoField.bytes("velto.signature", "Signature"),
    undecoded = ProtoField.bytes("velto.undecoded", "Undecoded bytes"),
    trailing = ProtoField.bytes("velto.trailing", "Bytes after the pack"),
    devmsg = ProtoField.string("velto.devmgmt.message", "Device-management message"),
    ignored = ProtoField.bytes("velto.objinforeq.ignored", "Ignored bytes"),
}
local FLAG_FIELDS = {}

local FIELD_MAKERS = { u8 = ProtoField.uint8, u16 = ProtoField.uint16, u32 = ProtoField.uint32 }

-- Declares the field "velto.<abbr>.<name in lower case>" under the layout's name.
local function declare(abbr, spec)
    local key = abbr .. "." .. spec[1]
    local filter = "velto." .. abbr .. "." .. spec[1]:lower()
    if F[key] then return end
    local kind, names = spec[2], VALUE_NAMES[key]
    if kind == "text" then
        F[key] = ProtoField.string(filter, spec[1])
    elseif kind == "bytes" then
        F[key .. "#len"] = ProtoField.uint32(filter .. ".len", spec[1] .. " size", base.DEC)
        F[key] = ProtoField.bytes(filter, spec[1])
    elseif kind == "u64" then
        F[key] = ProtoField.uint64(filter, spec[1], base.DEC)
    elseif FLAG_BITS[key] then
        F[key] = ProtoField.uint8(filter, spec[1], base.HEX)
        FLAG_FIELDS[key] = {}
        for _, bit in ipairs(FLAG_BITS[key]) do
            local f = ProtoField.bool(filter .. "." .. bit[2]:lower(), bit[2], 8, nil, bit[1])
            table.insert(FLAG_FIELDS[key], f)
            F[key .. "#" .. bit[2]] = f
        end
    else
        F[key] = FIELD_MAKERS[kind](filter, spec[1], base.DEC, names)
    end
end

for _, pack in pairs(PACKS) do
    for _, spec in ipairs(pack) do declare(pack.abbr, spec) end
end
for _, msg in pairs(DEVMGMT) do
    for _, spec in ipairs(msg.head) do declare(msg.abbr, spec) end
    for _, spec in ipairs(msg.each or {}) do declare(msg.abbr, spec) end
end
F.devlistcount = ProtoField.uint32("velto.devlist.count", "Number of devices", base.DEC)
F.objinfocount = ProtoField.uint32("velto.objinfo.count", "Number of objects", base.DEC)
DEVMGMT[2].countField, DEVMGMT[4].countField = F.devlistcount, F.objinfocount

local fieldList = {}
for _, f in pairs(F) do table.insert(fieldList, f) end
velto.fields = fieldList

local EX = {
    short = ProtoExpert.new("velto.expert.short", "Packet cut short", expert.group.MALFORMED, expert.severity.ERROR),
    toolong = ProtoExpert.new("velto.expert.toolong", "Text longer than its cap", expert.group.MALFORMED,
        expert.severity.ERROR),
    array = ProtoExpert.new("velto.expert.array", "Byte array longer than the packet", expert.group.MALFORMED,
        expert.severity.ERROR),
    capacity = ProtoExpert.new("velto.expert.capacity", "Byte array above its capacity", expert.group.PROTOCOL,
        expert.severity.WARN),
    sigtype = ProtoExpert.new("velto.expert.sigtype", "Unknown signature type", expert.group.PROTOCOL,
        expert.severity.WARN),
    pack = ProtoExpert.new("velto.expert.pack", "Unknown pack", expert.group.UNDECODED, expert.severity.WARN),
    trailing = ProtoExpert.new("velto.expert.trailing", "Bytes after the pack", expert.group.PROTOCOL,
        expert.severity.NOTE),
    body = ProtoExpert.new("velto.expert.body", "Carried message does not decode", expert.group.MALFORMED,
        expert.severity.ERROR),
    fault = ProtoExpert.new("velto.expert.fault", "Dissector fault", expert.group.MALFORMED, expert.severity.ERROR),
}
velto.experts = { EX.short, EX.toolong, EX.array, EX.capacity, EX.sigtype, EX.pack, EX.trailing, EX.body, EX.fault }

-- Reader: a bounded cursor over [off, limit) of a Tvb. Every read checks the
-- bytes are there first. The first malformed field marks the reader bad and
-- later reads return nil. With a nil tree it only checks (heuristic pass).

local Reader = {}
Reader.__index = Reader

local function newReader(tvb, off, limit)
    return setmetatable({ tvb = tvb, off = off, limit = limit, bad = false, fault = nil }, Reader)
end

function Reader:left() return self.limit - self.off end

function Reader:fail(tree, ex, text)
    self.bad = true
    self.fault = self.fault or text
    if tree then tree:add_proto_expert_info(ex, text) end
    return nil
end

local function add(tree, field, range, value)
    if not tree then return nil end
    if value == nil then return tree:add(field, range) end
    return tree:add(field, range, value)
end

function Reader:uint(tree, field, width, label)
    if self.bad then return nil end
    if self:left() < width then
        return self:fail(tree, EX.short, ("%s needs %d bytes, %d left"):format(label, width, self:left()))
    end
    local range = self.tvb(self.off, width)
    local v = width == 8 and range:uint64() or range:uint()
    local item = add(tree, field, range)
    self.off = self.off + width
    return v, item
end

-- A text of at most cap characters and its NUL, read as the receiver reads it.
function Reader:text(tree, field, cap, label)
    if self.bad then return nil end
    local left = self:left()
    if left <= 0 then return self:fail(tree, EX.short, label .. " is missing: the packet ends") end
    local look = math.min(left, cap + 1)
    local bytes = self.tvb(self.off, look):bytes()
    local nul
    for i = 0, look - 1 do
        if bytes:get_index(i) == 0 then nul = i break end
    end
    local len = nul or look
    local s = len > 0 and self.tvb(self.off, len):string() or ""
    local item = add(tree, field, self.tvb(self.off, nul and len + 1 or len), s)
    self.off = self.off + (nul and len + 1 or len)
    if nul then return s end
    if left > cap then
        self:fail(item, EX.toolong, ("%s is longer than its cap of %d characters (the receiver takes %d and "
            .. "reads on inside the text)"):format(label, cap, cap + 1))
    else
        self:fail(item, EX.short, label .. " has no NUL: the packet ends inside the text")
    end
    return s
end

-- A VLQ size: 7 bits a byte, most significant first, bit 7 on all but the last.
function Reader:vlq(tree, field, label)
    if self.bad then return nil end
    local v, n = 0, 0
    repeat
        if self.off + n >= self.limit then
            return self:fail(tree, EX.short, label .. " is cut short: the packet ends inside it")
        end
        local b = self.tvb(self.off + n, 1):uint()
        v = (v * 128 + b % 128) % 4294967296
        n = n + 1
    until b < 128
    add(tree, field, self.tvb(self.off, n), v)
    self.off = self.off + n
    return v
end

-- A byte array: VLQ size, then the bytes. Returns the size and where they start.
function Reader:bytes(tree, field, lenField, cap, label)
    local n = self:vlq(tree, lenField, label .. " size")
    if not n then return nil end
    local start, left = self.off, self:left()
    if n > left then
        local item = left > 0 and add(tree, field, self.tvb(start, left)) or tree
        self.off = self.limit
        return self:fail(item, EX.array, ("%s declares %d bytes, %d left"):format(label, n, left))
    end
    local item = n > 0 and add(tree, field, self.tvb(start, n)) or nil
    if n > cap and item then
        item:add_proto_expert_info(EX.capacity, ("%s holds %d bytes; the receiver keeps the first %d")
            :format(label, n, cap))
    end
    self.off = start + n
    return n, start
end

-- Reads one field of a layout into values[name].
function Reader:field(tree, abbr, spec, values)
    local key, kind, cap = abbr .. "." .. spec[1], spec[2], spec[3]
    if kind == "text" then
        values[spec[1]] = self:text(tree, F[key], cap, spec[1])
    elseif kind == "bytes" then
        values[spec[1]], values[spec[1] .. "@"] = self:bytes(tree, F[key], F[key .. "#len"], cap, spec[1])
    else
        local width = ({ u8 = 1, u16 = 2, u32 = 4, u64 = 8 })[kind]
        local v, item = self:uint(tree, F[key], width, spec[1])
        values[spec[1]] = v
        if item and FLAG_FIELDS[key] then
            for _, f in ipairs(FLAG_FIELDS[key]) do item:add(f, self.tvb(self.off - 1, 1)) end
        end
    end
end

function Reader:layout(tree, abbr, specs, values)
    for _, spec in ipairs(specs) do self:field(tree, abbr, spec, values) end
    return values
end

-- What is left of a malformed pack, shown as it is.
function Reader:rest(tree)
    if tree and self.bad and self:left() > 0 then add(tree, F.undecoded, self.tvb(self.off, self:left())) end
end

-- Info column --------------------------------------------------------------

local function nameOf(names, v)
    return names[v] or ("unknown " .. tostring(v))
end

local function node(dev, obj)
    return tostring(dev) .. "/" .. tostring(obj)
end

local function orq(v) return v == nil and "?" or tostring(v) end

-- "A/a → B/b msg M" for direct messages, "notification A/a event E" otherwise
-- (a notification's destination fields mean nothing).
local function selector(v)
    local from = node(v.fromDeviceId, v.fromObjectNo)
    if v.msgCat == 1 then return ("notification %s event %s"):format(from, orq(v.msgId)) end
    return ("%s → %s msg %s"):format(from, node(v.toDeviceId, v.toObjectNo), orq(v.msgId))
end

local INFO = {
    [1] = function(v) return ("duid %s specs %s"):format(orq(v.duid), orq(v.specs)) end,
    [2] = function(v) return ("to %s name %s domain %s"):format(orq(v.duid), orq(v.nname), orq(v.domain)) end,
    [3] = function(v) return ("duid %s name %s domain %s"):format(orq(v.duid), orq(v.nname), orq(v.domain)) end,
    [4] = function(v) return ("%s as node %s"):format(orq(v.duid), orq(v.nodeId)) end,
    [10] = function(v) return ("duid %s objects %s"):format(orq(v.duid), orq(v.noOfObjects)) end,
    [15] = function(v) return "object " .. orq(v.objectNo) end,
    [16] = function(v) return ("object %s %s:%s"):format(orq(v.objectNo), orq(v.name), orq(v.interface)) end,
    [19] = function(v) return ("sequences %s/%s"):format(orq(v.dev2HubSequence), orq(v.hub2DevSequence)) end,
    [20] = function(v) return v.pingOrPong and nameOf(PING_KINDS, v.pingOrPong) or "?" end,
    [31] = function(v)
        local s = selector(v) .. " no " .. orq(v.msgNo)
        if v.payload and v.packetStart then
            s = s .. (" [%d..%d of %s]"):format(v.packetStart, v.packetStart + v.payload, orq(v.msgSize))
        end
        return s
    end,
    [32] = function(v) return ("%s no %s up to %s"):format(selector(v), orq(v.msgNo), orq(v.lastSeqNo)) end,
    [33] = function(v)
        local verb = v.subscribe == nil and "?" or (v.subscribe == 0 and "unsubscribe" or "subscribe")
        return ("%s %s event %s"):format(verb, node(v.nodeId, v.objectNo), orq(v.eventId))
    end,
    [34] = function(v)
        return ("%s %s → %s msg %s%s"):format(v.errorCode and nameOf(ERROR_CODES, v.errorCode) or "?",
            node(v.fromNodeId, v.fromObjectNo), node(v.toNodeId, v.toObjectNo), orq(v.msgId),
            (v.optErorMsg and v.optErorMsg ~= "") and (": " .. v.optErorMsg) or "")
    end,
}

-- Carried device-management messages ----------------------------------------

-- True for a direct device-management message to or from node 1, object 1.
local function isDevMgmt(v)
    return v.msgCat == 2 and DEVMGMT[v.msgId] ~= nil
        and ((v.toDeviceId == 1 and v.toObjectNo == 1) or (v.fromDeviceId == 1 and v.fromObjectNo == 1))
end

-- True when the carrier holds such a message whole.
local function carriesDevMgmt(v)
    return isDevMgmt(v) and v.packetStart == 0 and v.payload ~= nil and v.payload == v.msgSize
        and v.payload <= 326
end

-- Decodes the body at [start, start + size); returns a words form for Info.
local function dissectDevMgmt(tvb, tree, msgId, start, size)
    local msg = DEVMGMT[msgId]
    local t = tree and tree:add(tvb(start, size), DEVMGMT_MSGS[msgId])
    if t then t:add(F.devmsg, tvb(start, size), DEVMGMT_MSGS[msgId]):set_generated() end
    local r = newReader(tvb, start, start + size)
    local head = r:layout(t, msg.abbr, msg.head, {})
    local words = DEVMGMT_MSGS[msgId]
    if head.nodeId then words = words .. " node " .. head.nodeId end
    if msg.each then
        local count = r:vlq(t, msg.countField, "number of entries")
        local n = 0
        while count and n < count and not r.bad do
            if r:left() <= 0 then
                r:fail(t, EX.short, ("%d of %d entries present"):format(n, count))
                break
            end
            local sub = t and t:add(tvb(r.off, r:left()), msg.entry .. " " .. n)
            local from = r.off
            local e = r:layout(sub, msg.abbr, msg.each, {})
            if sub then
                sub:set_len(r.off - from)
                sub:append_text((": %s %s"):format(orq(e.id or e.objectNo), orq(e.duid or e.name)))
            end
            n = n + 1
        end
        if count then words = words .. (" %s %s%s"):format(count, msg.entry:lower(), count == 1 and "" or "s") end
    end
    if msg.ignoreRest and not r.bad and r:left() > 0 then
        add(t, F.ignored, tvb(r.off, r:left()))
        r.off = r.limit
    end
    if not r.bad and r:left() > 0 and t then
        t:add_proto_expert_info(EX.trailing, ("%d bytes after the message"):format(r:left()))
    end
    r:rest(t)
    if r.bad and t then t:add_proto_expert_info(EX.body, DEVMGMT_MSGS[msgId] .. " does not decode") end
    return words, r.bad
end

-- Envelope and dispatch ------------------------------------------------------

-- The header and the signature area. Returns the pack id and its tree item.
local function readEnvelope(r, tvb, tree)
    local id, idItem = r:uint(tree, F.id, 1, "id")
    r:uint(tree, F.hubid, 1, "hubId")
    r:uint(tree, F.devid, 2, "devId")
    r:uint(tree, F.packetno, 4, "packetNo")
    local sig, sigItem = r:uint(tree, F.sigtype, 1, "signature type")
    r:uint(tree, F.enctype, 1, "encType")
    if sig and not SIG_TYPES[sig] and sigItem then
        sigItem:add_proto_expert_info(EX.sigtype, ("signature type %d carries no signature bytes"):format(sig))
    end
    local size = SIG_SIZES[sig or 0] or 0
    if r.bad or size == 0 then return id, idItem end
    if r:left() < size then
        if r:left() > 0 then add(tree, F.signature, tvb(r.off, r:left())) end
        r:fail(tree, EX.short, ("%s needs %d signature bytes, %d left"):format(SIG_TYPES[sig], size, r:left()))
    else
        add(tree, F.signature, tvb(r.off, size))
        r.off = r.off + size
    end
    return id, idItem
end

-- Messages of node 1, object 1 that come in pieces are put together on the
-- first pass over the capture, in order of position; the whole message is
-- kept by the number of the frame that completed it.
local MAX_REASSEMBLED = 1048576
local partial, complete = {}, {}
function velto.init()
    partial, complete = {}, {}
end

local function reassemble(v, tvb, pinfo)
    if complete[pinfo.number] or pinfo.visited then return complete[pinfo.number] end
    local key = table.concat({ v.fromDeviceId, v.fromObjectNo, v.toDeviceId, v.toObjectNo, v.msgId, v.msgNo,
        v.msgSize, tostring(pinfo.src), pinfo.src_port }, ":")
    if v.packetStart == 0 then partial[key] = { have = 0, data = ByteArray.new() } end
    local m = partial[key]
    if not m or v.packetStart ~= m.have or v.payload == 0 then return nil end
    m.data:append(tvb(v["payload@"], v.payload):bytes())
    m.have = m.have + v.payload
    if m.have < v.msgSize then return nil end
    partial[key] = nil
    if m.have == v.msgSize then complete[pinfo.number] = m.data end
    return complete[pinfo.number]
end

-- Words for a carrier holding a device-management message: decoded when it
-- is whole in this carrier or completed by it.
local function carriedWords(v, tvb, tree, pinfo)
    if carriesDevMgmt(v) then return dissectDevMgmt(tvb, tree, v.msgId, v["payload@"], v.payload) end
    if not pinfo or not v.payload or v.msgSize > MAX_REASSEMBLED or not isDevMgmt(v) then return nil end
    local whole = reassemble(v, tvb, pinfo)
    if not whole then return "piece of " .. DEVMGMT_MSGS[v.msgId], false end
    local words, bad = dissectDevMgmt(whole:tvb("Carried message"), tree, v.msgId, 0, v.msgSize)
    return words .. " (reassembled)", bad
end

-- The fields of a known pack and, in a carrier, a carried message it holds
-- whole. Returns the words for Info and whether the carried message is bad.
local function readBody(r, tvb, tree, pinfo, id)
    local body = tree and r:left() > 0 and tree:add(tvb(r.off, r:left()), PACK_NAMES[id]) or tree
    local from = r.off
    local v = r:layout(body, PACKS[id].abbr, PACKS[id], {})
    if body ~= tree and body then body:set_len(math.max(r.off - from, 1)) end
    r:rest(body)
    local words, bad = INFO[id](v), false
    if id == 31 and not r.bad then
        local w
        w, bad = carriedWords(v, tvb, tree, pinfo)
        if w then words = words .. ": " .. w .. (bad and " [malformed]" or "") end
    end
    return words, bad
end

-- Dissects one datagram into tree (nil, with no pinfo: only check). Returns
-- the words for Info, whether it is malformed, and whether bytes are left over.
local function dissectPacket(tvb, tree, pinfo)
    local r = newReader(tvb, 0, tvb:len())
    local id, idItem = readEnvelope(r, tvb, tree)
    local name = id and (PACK_NAMES[id] or ("unknown pack " .. id)) or "Velto"
    local info = name:gsub("Pack$", "")
    if not r.bad and not PACKS[id] then
        if idItem then idItem:add_proto_expert_info(EX.pack, name) end
        if r:left() > 0 then add(tree, F.undecoded, tvb(r.off, r:left())) end
        return info, false, true
    end
    local words, bodyBad = "", false
    if not r.bad then words, bodyBad = readBody(r, tvb, tree, pinfo, id) end
    if not r.bad and r:left() > 0 and tree then
        tree:add(F.trailing, tvb(r.off, r:left()))
        tree:add_proto_expert_info(EX.trailing, ("%d bytes after the pack: ignored by the receiver, "
            .. "not covered by the signature"):format(r:left()))
    end
    if words ~= "" then info = info .. " " .. words end
    if r.bad then info = info .. " [malformed: " .. r.fault .. "]" end
    return info, r.bad or bodyBad, r:left() > 0
end

function velto.dissector(tvb, pinfo, tree)
    pinfo.cols.protocol = "Velto"
    local root = tree:add(velto, tvb())
    local ok, info = pcall(dissectPacket, tvb, root, pinfo)
    if not ok then
        root:add_proto_expert_info(EX.fault, tostring(info))
        info = "Velto [dissector fault]"
    end
    pinfo.cols.info = info
    root:append_text(", " .. info)
    return tvb:len()
end

-- Other ports: a datagram is taken when it is no longer than the largest
-- datagram, names a known pack with known signature and encryption types, and
-- decodes whole to its last byte with nothing left over.
local function heuristic(tvb, pinfo, tree)
    local len = tvb:len()
    if len < 10 or len > 400 then return false end
    if not PACKS[tvb(0, 1):uint()] or not SIG_TYPES[tvb(8, 1):uint()] or not ENC_TYPES[tvb(9, 1):uint()] then
        return false
    end
    local ok, _, bad, rest = pcall(dissectPacket, tvb, nil)
    if not ok or bad or rest then return false end
    velto.dissector(tvb, pinfo, tree)
    return true
end

velto.prefs.port = Pref.uint("UDP port", 1881, "UDP port of the Velto protocol")
local currentPort = velto.prefs.port
DissectorTable.get("udp.port"):add(currentPort, velto)
velto:register_heuristic("udp", heuristic)

function velto.prefs_changed()
    if velto.prefs.port ~= currentPort then
        DissectorTable.get("udp.port"):remove(currentPort, velto)
        currentPort = velto.prefs.port
        DissectorTable.get("udp.port"):add(currentPort, velto)
    end
end
