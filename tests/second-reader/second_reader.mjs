// A second reader of qvx archives, written from docs/qvx-format.md alone, so that an error in both the page and the
// programs is found. `node second_reader.mjs KEY.pem ARCHIVE` reads the archive once from front to back, prints a line
// of JSON for each entry (bytes that need not be text in base64), and compares index, root and trailer with them.
// Status 1: the archive breaks a rule. The lines printed so far are of complete entries; others may be missing.
import { spawnSync } from "node:child_process";
import { createDecipheriv, createECDH, createHash, createHmac, createPrivateKey } from "node:crypto";
import { mkdtempSync, openSync, readFileSync, readSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";

const PLAIN_HEADER = "89515658" + "0d0a1a0a" + "0100" + "0300" + "01080000" + "00000000000000c0" + "00001000";
const BLOCK = 1 << 20, TAG = 16, RECORD_HEADER = 4;
const LAST = 1, COMPRESSED = 2, DICTIONARY = 4, CONTINUES = 0x80, FILE = 1, DIRECTORY = 2, LINK = 3;
const PAD = 0, ENTRY = 1, DATA = 2, HOLE = 3, END = 4, INDEX = 5, ROOT = 6, TRAILER = 7;
const SPLIT_LIMIT = { [END]: 2 << 20, [INDEX]: 1 << 20, [ROOT]: Infinity };
const BAD_PATH = /\0|^(?=.)\.{0,2}(\/|$)|\/\.{0,2}(\/|$)/s;
const TYPES = [, "file", "directory", "link"];
const ZEROS = Buffer.alloc(BLOCK);

const demand = (condition, what) => { if (!condition) throw new Error(what); };
const same = (one, other) => String(one) === String(other);
const repeat = (length, make) => Array.from({ length }, make);
const isZero = (bytes) => bytes.every((byte) => byte === 0);
const sha256 = (bytes) => createHash("sha256").update(bytes);
const zigzag = (value) => (value >> 1n) ^ -(value & 1n);
const wholeSeconds = (time = 0n) => (time - (((time % 1000000000n) + 1000000000n) % 1000000000n)) / 1000000000n;

// The fields of a payload, one after the other.
class Fields {
  constructor(bytes) { Object.assign(this, { bytes, at: 0 }); }

  byte() { return this.read(1)[0]; }
  text() { return this.read(this.count()); }

  read(count) {
    demand(count <= this.bytes.length - this.at, "a payload is too short");
    return this.bytes.subarray(this.at, (this.at += count));
  }

  varint() {
    let value = 0n, shift = 0n, byte;
    do {
      byte = this.byte();
      value |= BigInt(byte & 0x7f) << shift;
      shift += 7n;
    } while (byte & 0x80 && shift < 70n);
    demand(byte < 0x80 && value < 1n << 64n && (byte !== 0 || shift === 7n), "a varint is not in its one form");
    return value;
  }

  count() {
    const value = this.varint();
    demand(value <= Number.MAX_SAFE_INTEGER, "a number is larger than this reader can count");
    return Number(value);
  }
}

function readFully(file, count) {
  const bytes = Buffer.alloc(count);
  let got = 0;
  for (let more; got < count && (more = readSync(file, bytes, got, count - got, null)) > 0;) got += more;
  demand(got === count, "the archive is cut off");
  return bytes;
}

function sshKeyBlob(jwk) {
  const point = Buffer.concat([Buffer.of(4), Buffer.from(jwk.x, "base64url"), Buffer.from(jwk.y, "base64url")]);
  const fields = [Buffer.from("ecdsa-sha2-nistp256"), Buffer.from("nistp256"), point];
  return Buffer.concat(fields.flatMap((bytes) => [Buffer.of(0, 0, 0, bytes.length), bytes]));
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
function receive(jwk, encapsulated, info) {
  const kem = labelled("4b454d0010"), suite = labelled("48504b45001000010002"), none = Buffer.alloc(0);
  const own = createECDH("prime256v1");
  own.setPrivateKey(Buffer.from(jwk.d, "base64url"));
  const points = Buffer.concat([encapsulated, own.getPublicKey()]);
  const extracted = kem.extract(none, "eae_prk", own.computeSecret(encapsulated));
  const secret = suite.extract(kem.expand(extracted, "shared_secret", points, 32), "secret", none);
  const hashes = [suite.extract(none, "psk_id_hash", none), suite.extract(none, "info_hash", info)];
  const context = Buffer.concat([Buffer.of(0), ...hashes]);
  return { key: suite.expand(secret, "key", context, 32), nonce: suite.expand(secret, "base_nonce", context, 12) };
}

// The plain bytes of message `number`; null if the seal is broken.
function unseal({ key, nonce }, number, sealed, aad) {
  const iv = Buffer.from(nonce);
  iv.writeBigUInt64BE(iv.readBigUInt64BE(4) ^ BigInt(number), 4);
  const cipher = createDecipheriv("aes-256-gcm", key, iv).setAAD(aad).setAuthTag(sealed.subarray(-TAG));
  try {
    return Buffer.concat([cipher.update(sealed.subarray(0, -TAG)), cipher.final()]);
  } catch {
    return null;
  }
}

function openHeader(header, pem) {
  const groupLength = header.readUInt32LE(28);
  demand(header.toString("hex", 0, 28) === PLAIN_HEADER && groupLength > 0, "the header is not one of version 1");
  const jwk = createPrivateKey(pem).export({ format: "jwk" });
  demand(header.subarray(32, 64).equals(sha256(sshKeyBlob(jwk)).digest()), "the archive is sealed to another key");
  return { groupLength, keys: receive(jwk, header.subarray(64), header.subarray(0, 64)) };
}

function decompress(frame, dictionary) {
  demand(frame.length > 4 && frame.readUInt32LE() === 0xfd2fb528 && frame[4] >> 5, "a frame without its size");
  const result = spawnSync("zstd", ["-qdc", ...dictionary], { input: frame, maxBuffer: BLOCK });
  demand(result.status === 0, `a frame does not open: ${result.error ?? result.stderr}`);
  return result.stdout;
}

function* readBlocks(file, { groupLength, keys }, leader) {
  for (let number = 0, flags = 0, position = 129, length; flags !== LAST; number++, position += 16 + length) {
    const header = readFully(file, 16);
    [length, flags] = [header.readUIntLE(4, 3), header[7]];
    demand(header.readUInt32BE() === 0x51565842 && length > TAG && length <= BLOCK + TAG, "no block header");
    demand(header.readBigUInt64LE(8) === BigInt(number), "wrong sequence number of a block");
    const leads = number % groupLength === 0, known = [0, LAST, COMPRESSED, COMPRESSED | DICTIONARY];
    demand(known.includes(flags) && !(leads && flags & DICTIONARY), "impossible flags of a block");
    const stored = unseal(keys, number, readFully(file, length), header);
    demand(stored, `block ${number} does not open`);
    const plain = flags & COMPRESSED ? decompress(stored, flags & DICTIONARY ? ["-D", leader] : []) : stored;
    demand(flags === LAST ? plain.length < BLOCK : plain.length === BLOCK, "wrong size of a block");
    // zstd reads a dictionary from a file. With a zero in front, it is not mistaken for a trained dictionary.
    if (leads) writeFileSync(leader, Buffer.concat([Buffer.of(0), plain]));
    yield { number, position, length, flags, plain };
  }
  demand(readSync(file, Buffer.alloc(1)) === 0, "something follows the last block");
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
    demand(!continues || (type in SPLIT_LIMIT && plain.length - end < RECORD_HEADER), "a record is split wrongly");
    const record = (state.open ??= { type, block, offset: at, payload: Buffer.alloc(0) });
    record.payload = Buffer.concat([record.payload, plain.subarray(begin, end)]);
    demand(record.payload.length <= (SPLIT_LIMIT[type] ?? BLOCK), "a record is too long");
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
    this.open = { entry, place, size: 0n, holes: 0, zeros: 0n, stored: false, digest: sha256(""), target: [] };
  }

  add(bytes) {
    this.open.digest.update(bytes);
    this.open.size += BigInt(bytes.length);
    this.open.stored = true;
    if (this.open.entry.type === LINK) this.open.target.push(bytes);
  }

  [DATA](fields) {
    demand(this.open.entry.type !== DIRECTORY, "a directory has content");
    this.add(fields.read(fields.bytes.length));
  }

  [HOLE](fields) {
    demand(this.open.entry.type === FILE, "a hole outside a file");
    let rest = fields.varint();
    demand(rest > 0n, "an empty hole");
    this.open.zeros += rest;
    for (; rest >= BLOCK; rest -= BigInt(BLOCK)) this.add(ZEROS);
    this.add(ZEROS.subarray(0, Number(rest)));
    this.open.holes++;
  }

  [END](fields) {
    const { entry, place, size, holes, zeros, stored, digest, target } = this.open;
    const present = fields.byte(), has = (bit) => Boolean(present & (1 << bit));
    const isFile = entry.type === FILE;
    demand((has(1) ? isFile : holes === 0), "an end has the wrong fields");
    demand(!has(0) || entry.type !== DIRECTORY, "a digest of no content");
    const wanted = has(0) && fields.read(32).toString("hex"), sum = has(1) && [fields.varint(), fields.count()];
    if (has(2)) entry.content_of = fields.count();
    if (has(3)) entry.link_of = fields.count();
    if (has(4)) entry.xattrs = repeat(fields.count(), () => [fields.text(), fields.text()]);
    if (has(5)) [entry.acl, entry.default_acl] = [fields.text().toString(), fields.text().toString()];
    if (has(6)) Object.assign(entry, { incomplete: true, unreadable: this.extents(fields) });
    if (has(7)) entry.xattrs_omitted = true;
    const holder = has(2) ? this.entries[entry.content_of] : { type: FILE, size, holes, sha256: digest.digest("hex") };
    demand(!has(2) || (isFile && !stored), "content besides a reference to content");
    demand(holder?.type === FILE && holder.content_of === undefined, "a reference to no content");
    demand(!has(2) || !holder.unreadable?.length, "a reference to incomplete content");
    const extents = entry.unreadable ?? [], missing = extents.reduce((sum, each) => sum + each.length, 0n);
    const end = extents.reduce((_, { offset, length }) => offset + length, 0n);
    demand(missing === 0n || (isFile && !has(2) && end <= size && missing <= zeros), "wrong unreadable extents");
    demand(entry.type !== LINK || size > 0n || has(6), "a link without target");
    demand(!has(3) || (has(2) && entry.link_of < entry.number), "a wrong link reference");
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
    const count = fields.count();
    demand(count <= 4096, "too many unreadable extents");
    return repeat(count, (_, i) => {
      const gap = fields.varint(), length = fields.varint(), offset = end + gap;
      demand(length > 0n && (gap > 0n || i === 0), "unreadable extents that are empty or adjacent");
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
  const shown = { ...entry, type: TYPES[entry.type], mode: entry.mode?.toString(8).padStart(4, "0") };
  for (const key of ["path", "target", "xattrs"]) shown[key] = base64(entry[key]);
  if (entry.type === FILE) shown.size = size;
  const mark = (_, value) => (typeof value === "bigint" ? `#${value}` : value);
  console.log(JSON.stringify(shown, mark).replace(/"#(-?\d+)"/g, "$1"));
}

const folder = mkdtempSync(`${tmpdir()}/second-reader-`);
try {
  const [key, path] = process.argv.slice(2), file = openSync(path), archive = new Archive();
  const sealing = openHeader(readFully(file, 129), readFileSync(key));
  for (const block of readBlocks(file, sealing, `${folder}/leader`)) archive.block(block);
  demand(archive.whole && !archive.state.open, "the archive has no trailer");
} catch (error) {
  console.error(`second-reader: ${error.message}`);
  process.exitCode = 1;
} finally {
  rmSync(folder, { recursive: true });
}
