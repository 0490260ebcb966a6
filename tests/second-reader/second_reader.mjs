// A second reader of qvx archives, written from docs/qvx-format.md alone, so that an error in both the page and the
// programs is found. `node second_reader.mjs KEY.pem ARCHIVE` reads the archive once from front to back, prints a line
// of JSON for each entry (bytes that need not be text in base64), and compares index, root and trailer with them.
// Status 1: the archive breaks a rule. The lines printed so far are of complete entries; others may be missing.
import { spawnSync } from "node:child_process";
import { createDecipheriv, createECDH, createHash, createHmac, createPrivateKey } from "node:crypto";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";

const PLAIN_HEADER = "89515658" + "0d0a1a0a" + "0100" + "0300" + "01080000" + "00000000000000c0" + "00001000";
const SSH_KEY = "\0\0\0\x13ecdsa-sha2-nistp256\0\0\0\x08nistp256\0\0\0\x41"; // and the point
const BLOCK = 1 << 20, TAG = 16, RECORD_HEADER = 4;
const LAST = 1, COMPRESSED = 2, DICTIONARY = 4, CONTINUES = 0x80, FILE = 1, DIRECTORY = 2, LINK = 3;
const PAD = 0, ENTRY = 1, DATA = 2, HOLE = 3, END = 4, INDEX = 5, ROOT = 6, TRAILER = 7, SPLIT = [END, INDEX, ROOT];
const BAD_PATH = /\0|^(?=.)\.{0,2}(\/|$)|\/\.{0,2}(\/|$)/s;

const demand = (condition, what) => { if (!condition) throw new Error(what); };
const same = (one, other) => String(one) === String(other);
const repeat = (length, make) => Array.from({ length }, make);
const isZero = (bytes) => bytes.every((byte) => byte === 0);
const sha256 = (bytes) => createHash("sha256").update(bytes);
const zigzag = (value) => (value >> 1n) ^ -(value & 1n);
const wholeSeconds = (time = 0n) => (time - (((time % 1000000000n) + 1000000000n) % 1000000000n)) / 1000000000n;

// The parts of a payload or file, one after the other.
class Fields {
  constructor(bytes) { Object.assign(this, { bytes, at: 0 }); }

  byte() { return this.read(1)[0]; }
  count() { return Number(this.varint()); }
  text() { return this.read(this.count()); }

  read(count) {
    demand(count <= this.bytes.length - this.at, "a payload or the archive is too short");
    return this.bytes.subarray(this.at, (this.at += count));
  }

  varint() {
    let value = 0n, count = 0n, byte;
    do {
      byte = this.byte();
      value |= BigInt(byte & 0x7f) << (7n * count++);
    } while (byte & 0x80 && count < 10n);
    demand(byte < 0x80 && value < 1n << 64n && (byte !== 0 || count === 1n), "a varint is not in its one form");
    return value;
  }
}

// The labelled extraction and expansion of HPKE (RFC 9180, section 4) under one suite identifier. No output is longer
// than one digest.
function labelled(suiteId) {
  const hmac = (key, ...parts) => createHmac("sha256", key).update(Buffer.concat(parts)).digest();
  const label = (text) => Buffer.concat([Buffer.from("HPKE-v1"), Buffer.from(suiteId, "hex"), Buffer.from(text)]);
  return {
    extract: (salt, text, secret) => hmac(salt, label(text), secret),
    expand: (key, text, info, size) => hmac(key, Buffer.of(0, size), label(text), info, Buffer.of(1)).subarray(0, size),
  };
}

// Base mode with DHKEM(P-256, HKDF-SHA256), HKDF-SHA256 and AES-256-GCM.
function receive(own, encapsulated, info) {
  const kem = labelled("4b454d0010"), suite = labelled("48504b45001000010002"), none = Buffer.alloc(0);
  const points = Buffer.concat([encapsulated, own.getPublicKey()]);
  const extracted = kem.extract(none, "eae_prk", own.computeSecret(encapsulated));
  const secret = suite.extract(kem.expand(extracted, "shared_secret", points, 32), "secret", none);
  const hashes = [suite.extract(none, "psk_id_hash", none), suite.extract(none, "info_hash", info)];
  const context = Buffer.concat([Buffer.of(0), ...hashes]);
  return { key: suite.expand(secret, "key", context, 32), nonce: suite.expand(secret, "base_nonce", context, 12) };
}

// The plain bytes of message `number`. Throws if the seal is broken.
function unseal({ key, nonce }, number, sealed, aad) {
  const iv = Buffer.from(nonce);
  iv.writeBigUInt64BE(iv.readBigUInt64BE(4) ^ BigInt(number), 4);
  const cipher = createDecipheriv("aes-256-gcm", key, iv).setAAD(aad).setAuthTag(sealed.subarray(-TAG));
  return Buffer.concat([cipher.update(sealed.subarray(0, -TAG)), cipher.final()]);
}

function openHeader(header, pem) {
  const groupLength = header.readUInt32LE(28);
  demand(header.toString("hex", 0, 28) === PLAIN_HEADER && groupLength > 0, "the header is not one of version 1");
  const own = createECDH("prime256v1");
  own.setPrivateKey(Buffer.from(createPrivateKey(pem).export({ format: "jwk" }).d, "base64url"));
  const keyId = sha256(Buffer.concat([Buffer.from(SSH_KEY), own.getPublicKey()])).digest();
  demand(header.subarray(32, 64).equals(keyId), "the archive is sealed to another key");
  return { groupLength, keys: receive(own, header.subarray(64), header.subarray(0, 64)) };
}

function decompress(frame, dictionary) {
  demand(frame.length > 4 && frame.readUInt32LE() === 0xfd2fb528 && frame[4] >> 5, "a frame without its size");
  const result = spawnSync("zstd", ["-qdc", ...dictionary], { input: frame, maxBuffer: BLOCK });
  demand(result.status === 0, `a frame does not open: ${result.error ?? result.stderr}`);
  return result.stdout;
}

function* readBlocks(file, { groupLength, keys }, leader) {
  for (let number = 0, flags; flags !== LAST; number++) {
    const position = file.at, header = file.read(16), length = header.readUIntLE(4, 3);
    flags = header[7];
    const known = header.readUInt32BE() === 0x51565842 && header.readBigUInt64LE(8) === BigInt(number);
    demand(known && length > TAG && length <= BLOCK + TAG, "no block header, or one of another block");
    const leads = number % groupLength === 0, possible = [0, LAST, COMPRESSED, leads ? 0 : COMPRESSED | DICTIONARY];
    demand(possible.includes(flags), "impossible flags of a block");
    const stored = unseal(keys, number, file.read(length), header);
    const plain = flags & COMPRESSED ? decompress(stored, flags & DICTIONARY ? ["-D", leader] : []) : stored;
    demand(flags === LAST ? plain.length < BLOCK : plain.length === BLOCK, "wrong size of a block");
    // zstd reads a dictionary from a file. With a zero in front, it is not mistaken for a trained dictionary.
    if (leads) writeFileSync(leader, Buffer.concat([Buffer.of(0), plain]));
    yield { number, position, length, flags, plain };
  }
  demand(file.at === file.bytes.length, "something follows the last block");
}

// The logical records of a block; one that continues in the next block is kept in `state.open` until then.
function* readRecords(block, state) {
  const { plain } = block;
  let at = 0;
  while (plain.length - at >= RECORD_HEADER) {
    const type = plain[at] & ~CONTINUES, continues = plain[at] & CONTINUES;
    const begin = at + RECORD_HEADER, end = begin + plain.readUIntLE(at + 1, 3);
    demand(end <= plain.length, "a record crosses the end of its block");
    demand(!state.open || (at === 0 && type === state.open.type), "a split record does not continue");
    demand(!continues || (SPLIT.includes(type) && plain.length - end < RECORD_HEADER), "a record is split wrongly");
    const record = (state.open ??= { type, block, offset: at, payload: Buffer.alloc(0) });
    record.payload = Buffer.concat([record.payload, plain.subarray(begin, end)]);
    at = end;
    if (continues) break;
    state.open = null;
    if (type !== PAD) yield record;
    else demand(at === plain.length && isZero(record.payload), "padding is not zero or not up to the end");
  }
  demand(isZero(plain.subarray(at)), "the rest of a block is not zero");
}

class Archive {
  constructor() { Object.assign(this, { blocks: [], entries: [], parts: [], indexed: 0, state: {} }); }

  block({ plain, ...block }) {
    this.blocks.push(block);
    for (const { type, payload, offset, block: { number } } of readRecords({ plain, ...block }, this.state)) {
      demand(type in this && [DATA, HOLE, END].includes(type) === Boolean(this.open), "a record out of place");
      demand(!this.root || type === TRAILER, "more than the trailer follows the root");
      const fields = new Fields(payload);
      this[type](fields, number, offset);
      demand(fields.at === payload.length, "a payload is too long");
    }
  }

  [ENTRY](fields, ...place) {
    const entry = { number: fields.count(), type: fields.byte(), path: fields.text() };
    demand(entry.number === this.entries.length && [FILE, DIRECTORY, LINK].includes(entry.type), "no such entry");
    demand(entry.path.length <= 4095 && !BAD_PATH.test(entry.path.toString("latin1")), "a path that is not allowed");
    const present = fields.byte();
    ["uid", "gid", "mode", "flags"].forEach((key, bit) => { if (present & (1 << bit)) entry[key] = fields.count(); });
    if (present & 0x10) entry.mtime_ns = fields.read(8).readBigInt64LE();
    if (present & 0x20) entry.ctime_ns = zigzag(fields.varint()) + (entry.mtime_ns ?? 0n);
    if (present & 0x40) entry.btime_ns = zigzag(fields.varint()) + (entry.mtime_ns ?? 0n);
    demand(present < 0x80 && (entry.mode ?? 0) <= 0o7777, "an entry has an unknown field or mode");
    this.open = { entry, place, size: 0n, holes: 0, digest: sha256(""), target: [] };
  }

  add(bytes) {
    this.open.digest.update(bytes);
    this.open.size += BigInt(bytes.length);
    if (this.open.entry.type === LINK) this.open.target.push(bytes);
  }

  [DATA](fields) {
    demand(this.open.entry.type !== DIRECTORY, "a directory has content");
    this.add(fields.read(fields.bytes.length));
  }

  [HOLE](fields) {
    let rest = fields.varint();
    demand(this.open.entry.type === FILE && rest > 0n, "a hole that is empty or outside a file");
    for (; rest >= BLOCK; rest -= BigInt(BLOCK)) this.add(Buffer.alloc(BLOCK));
    this.add(Buffer.alloc(Number(rest)));
    this.open.holes++;
  }

  [END](fields) {
    const { entry, place, size, holes, digest, target } = this.open;
    const present = fields.byte(), has = (bit) => Boolean(present & (1 << bit)), isFile = entry.type === FILE;
    demand((has(1) ? isFile : holes === 0) && (!has(0) || entry.type !== DIRECTORY), "an end has the wrong fields");
    const wanted = has(0) && fields.read(32).toString("hex"), sum = has(1) && [fields.varint(), fields.count()];
    if (has(2)) entry.content_of = fields.count();
    if (has(3)) entry.link_of = fields.count();
    if (has(4)) entry.xattrs = repeat(fields.count(), () => [fields.text(), fields.text()]);
    if (has(5)) [entry.acl, entry.default_acl] = [fields.text().toString(), fields.text().toString()];
    if (has(6)) Object.assign(entry, { incomplete: true, unreadable: this.extents(fields) });
    if (has(7)) entry.xattrs_omitted = true;
    const holder = has(2) ? this.entries[entry.content_of] : { type: FILE, size, holes, sha256: digest.digest("hex") };
    demand(!has(2) || (isFile && size === 0n), "content besides a reference to content");
    const isHolder = holder?.type === FILE && holder.content_of === undefined && !holder.unreadable?.length;
    demand(isHolder && (!has(3) || (has(2) && entry.link_of < entry.number)), "a reference to no content");
    const end = (entry.unreadable ?? []).reduce((_, { offset, length }) => offset + length, 0n);
    demand(end === 0n || (isFile && !has(2) && end <= size), "wrong unreadable extents");
    demand(entry.type !== LINK || size > 0n || has(6), "a link without target");
    if (isFile) Object.assign(entry, { size: holder.size, holes: holder.holes });
    if (isFile || has(0)) entry.sha256 = holder.sha256;
    demand(!has(0) || wanted === entry.sha256, "the content's digest differs");
    demand(!has(1) || same(sum, [entry.size, entry.holes]), "the content's sum differs");
    if (entry.type === LINK) Object.assign(entry, { size, target: Buffer.concat(target) });
    this.entries.push(Object.assign(entry, { place }));
    this.open = null;
    print(entry);
  }

  extents(fields) {
    let end = 0n;
    return repeat(fields.count(), (_, i) => {
      const offset = end + fields.varint(), length = fields.varint();
      demand(length > 0n && (offset > end || i === 0), "unreadable extents that are empty or adjacent");
      end = offset + length;
      return { offset, length };
    });
  }

  [INDEX](fields, ...place) {
    const first = fields.count(), entries = this.entries.slice(first, first + fields.count());
    demand(first === this.indexed, "an index part covers the wrong entries");
    let block = 0, path = Buffer.alloc(0), seconds = 0n;
    for (const entry of entries) {
      const found = [(block += fields.count()), fields.count(), fields.byte()];
      path = Buffer.concat([path.subarray(0, fields.count()), fields.text()]);
      found.push(fields.count(), fields.count(), fields.count(), fields.varint(), (seconds += zigzag(fields.varint())));
      const { mode = 0, uid = 0, gid = 0, size = 0n } = entry;
      const type = entry.type | (entry.incomplete ? 0x80 : 0);
      const expected = [...entry.place, type, mode, uid, gid, size, wholeSeconds(entry.mtime_ns)];
      demand(same(found, expected) && path.equals(entry.path), `the index differs for entry ${entry.number}`);
    }
    this.parts.push([first, ...place]);
    this.indexed += entries.length;
  }

  [ROOT](fields, number, offset) {
    const entries = fields.count(), before = this.blocks.slice(0, number).map((each) => each.length);
    const parts = repeat(fields.count(), () => [fields.count(), fields.count(), fields.count()]);
    const lengths = repeat(fields.count(), () => fields.count());
    demand(offset === 0 && this.indexed === entries && entries === this.entries.length, "entries are not indexed");
    demand(same(parts, this.parts) && same(lengths, before), "the root differs");
    demand(this.blocks.slice(number).every((each) => !(each.flags & DICTIONARY)), "the root needs a dictionary");
    this.root = this.blocks[number];
  }

  [TRAILER](fields, number, offset) {
    const found = repeat(4, () => fields.read(8).readBigUInt64LE());
    this.whole = same(found, [this.root?.position, this.root?.number, this.entries.length, number + 1]);
    demand(this.whole && this.blocks[number].flags === LAST && offset === 0, "the trailer differs");
  }
}

function print({ place, size, ...entry }) {
  const base64 = (value) => (Buffer.isBuffer(value) ? value.toString("base64") : value?.map(base64));
  const type = ["file", "directory", "link"][entry.type - 1];
  const shown = { ...entry, type, mode: entry.mode?.toString(8).padStart(4, "0") };
  for (const key of ["path", "target", "xattrs"]) shown[key] = base64(entry[key]);
  if (entry.type === FILE) shown.size = size;
  const mark = (_, value) => (typeof value === "bigint" ? `#${value}` : value);
  console.log(JSON.stringify(shown, mark).replace(/"#(-?\d+)"/g, "$1"));
}

const folder = mkdtempSync("/tmp/second-reader-");
process.on("exit", () => rmSync(folder, { recursive: true }));
try {
  const [key, path] = process.argv.slice(2), file = new Fields(readFileSync(path)), archive = new Archive();
  const sealing = openHeader(file.read(129), readFileSync(key));
  for (const block of readBlocks(file, sealing, `${folder}/leader`)) archive.block(block);
  demand(archive.whole && !archive.state.open, "the archive has no trailer");
} catch (error) {
  console.error(`second-reader: ${error.message}`);
  process.exitCode = 1;
}
