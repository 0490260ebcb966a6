// A second reader of qvx archives, written from docs/qvx-format.md alone, so that an error in both the page and the
// programs is found. `node second_reader.mjs KEY.pem ARCHIVE` reads the archive once from front to back, compares
// index, root and trailer with the entries, and prints a line of JSON for each entry in the order of the numbers (its
// strings are the bytes of the archive, which need not be UTF-8). Status 1: the archive breaks a rule. The lines are of
// complete entries; some may be missing.
import { spawnSync } from "node:child_process";
import { createDecipheriv, createECDH, createHash, createHmac, createPrivateKey, hkdfSync } from "node:crypto";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";

const HEADER = "89515658" + "0d0a1a0a" + "0100" + "0300" + "01080000" + "00000000000000c0" + "00001000";
const END_MARK = "89515658" + "454e440a", FRAME = "28b52ffd" + "a000001000", LAST_BLOCK = 76;
const SSH_KEY = "\0\0\0\x13ecdsa-sha2-nistp256\0\0\0\x08nistp256\0\0\0\x41"; // and the point
const BLOCK = 1 << 20, TAG = 16, RECORD_HEADER = 4;
const LAST = 1, COMPRESSED = 2, DICTIONARY = 4, LEADER = 8, LEADERS = 16, CONTINUES = 0x80;
const FLAGS = [0, LAST, COMPRESSED, COMPRESSED | DICTIONARY, LEADER, COMPRESSED | LEADER];
const PAD = 0, ENTRY = 1, DATA = 2, HOLE = 3, END = 4, INDEX = 5, ROOT = 6, TRAILER = 7, SPLIT = [END, INDEX, ROOT];
const FILE = 1, DIRECTORY = 2, LINK = 3, MAX_ID = 2 ** 32 - 2, MAX_SIZE = 1n << 63n, MAX_HASHED_ZEROS = 1n << 34n;
const MAXIMA = { uid: MAX_ID, gid: MAX_ID, mode: 0o7777, flags: 2 ** 32 - 1 };
const BAD_PATH = /\0|^(?=.)\.{0,2}(\/|$)|\/\.{0,2}(\/|$)/s;
const ATTRIBUTE = /^(?!system\.posix_acl_(access|default)$)(user|trusted|security|system)\.[^\0]+$/;
const WHO = ["user", "user", "group", "group", "mask", "other"], USER = 1, GROUP = 3;
const ACCESS_LIST = /^(025|01*23*45)?$/; // of the kinds of its entries

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
  text(limit) { return this.read(this.count(limit)); }

  read(count) {
    demand(count <= this.bytes.length - this.at, "a payload or the archive is too short");
    return this.bytes.subarray(this.at, (this.at += count));
  }

  count(limit = Infinity) {
    const value = Number(this.varint());
    demand(value <= limit, "a number is too high");
    return value;
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

// The labelled extraction and expansion of HPKE (RFC 9180, section 4). No output is longer than one digest.
const hmac = (key, ...parts) => parts.reduce((mac, part) => mac.update(part), createHmac("sha256", key)).digest();
const extract = (suite, salt, label, secret) => hmac(salt, "HPKE-v1", suite, label, secret);
const expand = (suite, key, label, info, size) =>
  hmac(key, Buffer.of(0, size), "HPKE-v1", suite, label, info, Buffer.of(1)).subarray(0, size);

// Keys of the one message in base mode with DHKEM(P-256, HKDF-SHA256), HKDF-SHA256 and AES-256-GCM.
function receive(own, encapsulated, info) {
  const kem = "KEM\0\x10", suite = "HPKE\0\x10\0\x01\0\x02";
  const points = Buffer.concat([encapsulated, own.getPublicKey()]);
  const extracted = extract(kem, "", "eae_prk", own.computeSecret(encapsulated));
  const secret = extract(suite, expand(kem, extracted, "shared_secret", points, 32), "secret", "");
  const hashes = [extract(suite, "", "psk_id_hash", ""), extract(suite, "", "info_hash", info)];
  const context = Buffer.concat([Buffer.of(0), ...hashes]);
  return { key: expand(suite, secret, "key", context, 32), nonce: expand(suite, secret, "base_nonce", context, 12) };
}

// The plain bytes of message `number`. Throws if the seal is broken.
function unseal({ key, nonce }, number, sealed, aad) {
  const iv = Buffer.from(nonce);
  iv.writeBigUInt64BE(iv.readBigUInt64BE(4) ^ BigInt(number), 4);
  const cipher = createDecipheriv("aes-256-gcm", key, iv).setAAD(aad).setAuthTag(sealed.subarray(-TAG));
  return Buffer.concat([cipher.update(sealed.subarray(0, -TAG)), cipher.final()]);
}

// The keys of the archive, from its header.
function openHeader(file, pem) {
  const fixed = file.read(64), count = fixed.readUInt16LE(28);
  demand(fixed.toString("hex", 0, 28) === HEADER && count >= 1 && count <= 16, "the header is not one of version 1");
  const own = createECDH("prime256v1");
  own.setPrivateKey(Buffer.from(createPrivateKey(pem).export({ format: "jwk" }).d, "base64url"));
  const keyId = sha256(Buffer.concat([Buffer.from(SSH_KEY), own.getPublicKey()])).digest("hex");
  const recipients = new Map(repeat(count, () => [file.read(32).toString("hex"), [file.read(65), file.read(48)]]));
  demand(recipients.size === count && fixed.readUInt16LE(30) === 0, "a recipient is there twice, or no zero");
  demand(recipients.has(keyId), "the archive is sealed to another key");
  const [encapsulated, sealed] = recipients.get(keyId);
  const contentKey = unseal(receive(own, encapsulated, fixed), 0, sealed, Buffer.alloc(0));
  const derive = (info, size) => Buffer.from(hkdfSync("sha256", contentKey, fixed.subarray(32), info, size));
  const tag = hmac(derive("qvx header key", 32), file.bytes.subarray(0, file.at));
  demand(tag.equals(file.read(32)), "the tag of the header differs");
  return { key: derive("qvx block key", 32), nonce: derive("qvx block nonce", 12) };
}

// zstd would go on with a second frame. A block has a header of 3 bytes: last or not, its type, its size. Type 1 is one
// byte, repeated.
function decompress(frame, dictionary) {
  const fields = new Fields(frame), start = fields.read(9).toString("hex");
  for (let header = 0; !(header & 1); ) {
    header = fields.read(3).readUIntLE(0, 3);
    fields.read((header & 6) === 2 ? 1 : header >> 3);
  }
  demand(start === FRAME && fields.at === frame.length, "not the one frame that is allowed");
  const result = spawnSync("zstd", ["-qdc", ...dictionary], { input: frame, maxBuffer: BLOCK });
  demand(result.status === 0 && result.stdout.length === BLOCK, `a bad frame: ${result.error ?? result.stderr}`);
  return result.stdout;
}

function* readBlocks(file, keys, folder) {
  const leaders = [], content = (leader) => `${folder}/${leader}`;
  for (let number = 0, flags; flags !== LAST; number++) {
    const position = file.at, header = file.read(24), length = header.readUIntLE(4, 3);
    flags = header[7];
    const known = header.readUInt32BE() === 0x51565842 && header.readBigUInt64LE(8) === BigInt(number);
    demand(known && FLAGS.includes(flags) && number < 1 << 21, "no header of this block, or too many blocks");
    const rawLength = flags & LAST ? LAST_BLOCK - 24 : BLOCK + TAG;
    const isPossible = flags & COMPRESSED ? length > TAG && length < BLOCK + TAG : length === rawLength;
    demand(isPossible, "the length of a block is impossible");
    const leader = Number(header.readBigUInt64LE(16));
    demand(flags & DICTIONARY ? leaders.includes(leader) : leader === 0, "the leader of a block is none of the last");
    const stored = unseal(keys, number, file.read(length), header);
    const dictionary = flags & DICTIONARY ? ["-D", content(leader)] : [];
    const plain = flags & COMPRESSED ? decompress(stored, dictionary) : stored;
    if (flags & LEADER) {
      // zstd reads a dictionary from a file. With a zero in front, it is not mistaken for a trained dictionary.
      writeFileSync(content(number), Buffer.concat([Buffer.of(0), plain]));
      if (leaders.push(number) > LEADERS) rmSync(content(leaders.shift()));
    }
    yield { number, position, length, flags, plain };
  }
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
  constructor(start) {
    Object.assign(this, { start, blocks: [], entries: [], count: 0, parts: [], indexed: 0, zeros: 0n, state: {} });
  }

  block({ plain, ...block }) {
    this.blocks.push(block);
    for (const { type, payload, offset, block: { number } } of readRecords({ plain, ...block }, this.state)) {
      demand(!this.root || type === TRAILER, "more than the trailer follows the root");
      if (type >= 0x40 && type <= 0x7e && !this.open) continue; // an addition
      demand(type in this && [DATA, HOLE, END].includes(type) === Boolean(this.open), "a record out of place");
      const fields = new Fields(payload);
      this[type](fields, number, offset);
      demand(fields.at === payload.length, "a payload is too long");
    }
  }

  [ENTRY](fields, ...place) {
    const number = fields.count(MAX_ID), byte = fields.byte(), type = byte & 0x7f, announced = byte > 0x80;
    const entry = { number, type, path: fields.text(4095) };
    demand(!this.entries[number] && [FILE, DIRECTORY, LINK].includes(type), "no such entry");
    demand(!BAD_PATH.test(entry.path.toString("latin1")), "a path that is not allowed");
    demand(type === DIRECTORY ? !announced : entry.path.length > 0, "a directory has no digest, others have a path");
    const present = fields.count(0x7f);
    for (const [bit, key] of Object.keys(MAXIMA).entries())
      if (present & (1 << bit)) entry[key] = fields.count(MAXIMA[key]);
    if (present & 0x10) entry.mtime_ns = fields.read(8).readBigInt64LE();
    const time = () => BigInt.asIntN(64, zigzag(fields.varint()) + (entry.mtime_ns ?? 0n));
    if (present & 0x20) entry.ctime_ns = time();
    if (present & 0x40) entry.btime_ns = time();
    this.open = { entry, place, announced, size: 0n, holes: 0, zeros: 0n, digest: sha256(""), target: [] };
  }

  [DATA](fields) {
    const { entry, digest, target } = this.open, bytes = fields.read(fields.bytes.length);
    demand(entry.type !== DIRECTORY && bytes.length > 0, "a directory has content, or DATA none");
    digest.update(bytes);
    this.open.size += BigInt(bytes.length);
    if (entry.type === LINK) target.push(bytes);
  }

  [HOLE](fields) {
    const length = fields.varint(), { entry, announced, digest } = this.open;
    demand(entry.type === FILE && length > 0n, "a hole that is empty or outside a file");
    this.open.size += length;
    this.open.zeros += length;
    this.open.holes++;
    if (announced) this.zeros += length;
    this.open.covered = this.zeros > MAX_HASHED_ZEROS;
    for (let rest = announced && !this.open.covered ? length : 0n; rest > 0n; rest -= BigInt(BLOCK))
      digest.update(Buffer.alloc(rest > BLOCK ? BLOCK : Number(rest)));
  }

  [END](fields) {
    const { entry, place, announced, size, holes, zeros, digest, target, covered } = this.open;
    const present = fields.count(0x7f), has = (bit) => Boolean(present & (1 << bit)), isFile = entry.type === FILE;
    demand(fields.bytes.length <= 2 << 20 && size < MAX_SIZE, "an end that is too large");
    demand(has(0) === (announced && !covered), "a digest is announced and not there, or the other way round");
    demand(has(1) ? isFile : holes === 0, "totals of what is no file, or none of a file with holes");
    if (has(0)) entry.sha256 = digest.digest("hex");
    demand(!has(0) || fields.read(32).toString("hex") === entry.sha256, "the content's digest differs");
    demand(!has(1) || (fields.varint() === size && fields.count() === holes), "the content's sum differs");
    if (has(2)) entry.content_of = fields.count();
    if (has(3)) entry.hard_link = true;
    if (has(4)) entry.xattrs = this.attributes(fields);
    if (has(5)) [entry.acl, entry.default_acl] = [this.accessList(fields), this.accessList(fields)];
    if (has(6)) Object.assign(entry, { incomplete: true, unreadable: this.extents(fields) });
    const holder = has(2) ? this.entries[entry.content_of] : { type: FILE, size };
    const isHolder = holder?.type === FILE && holder.content_of === undefined && !holder.incomplete;
    demand(isHolder && (!has(3) || has(2)), "a reference to no content");
    demand(!has(2) || (isFile && size === 0n && !announced && !has(1)), "content besides a reference to content");
    const { unreadable = [] } = entry, { offset, length } = unreadable.at(-1) ?? {};
    const within = isFile && !has(2) && offset + length <= size;
    const total = unreadable.reduce((sum, extent) => sum + extent.length, 0n);
    demand(total === 0n || (within && total <= zeros), "wrong unreadable extents");
    if (entry.type === LINK) entry.target = Buffer.concat(target);
    demand(entry.type !== LINK || has(6) || size > 0n, "a link without target");
    demand(!entry.target || (size <= 4095n && !entry.target.includes(0)), "a target that is not allowed");
    demand(!entry.default_acl || entry.type === DIRECTORY, "a default list of what is no directory");
    demand(!has(5) || (entry.type !== LINK && (entry.acl || entry.default_acl)), "a list of a link, or none");
    entry.size = isFile ? holder.size : size;
    if (isFile && !has(2)) entry.holes = holes;
    this.entries[entry.number] = Object.assign(entry, { place, span: this.blocks.length - 1 - place[0] });
    this.count++;
    this.open = null;
  }

  attributes(fields) {
    const found = repeat(fields.count(65536), () => [fields.text(255), fields.text(65536)]);
    const names = found.map(([name]) => name.toString("latin1"));
    const allowed = names.every((name, i) => ATTRIBUTE.test(name) && (i === 0 || names[i - 1] < name));
    demand(allowed && found.length > 0, "no attributes, or the name of one is not allowed or out of order");
    demand(found.flat().reduce((sum, text) => sum + text.length, 0) <= BLOCK, "the attributes are too large");
    return found;
  }

  // The text form of an access list.
  accessList(fields) {
    let kinds = "", last = -1;
    const lines = repeat(fields.count(8191), () => {
      const byte = fields.byte(), kind = byte >> 3;
      const id = kind === USER || kind === GROUP ? fields.count(MAX_ID) : "", place = kind * 2 ** 32 + Number(id);
      demand(place > last, "a list out of order");
      last = place;
      kinds += kind.toString(32);
      return `${WHO[kind]}:${id}:${"rwx".replace(/./g, (letter, i) => (byte & (4 >> i) ? letter : "-"))}`;
    });
    demand(ACCESS_LIST.test(kinds), "a list lacks an entry");
    return lines.join("\n");
  }

  extents(fields) {
    let end = 0n;
    return repeat(fields.count(4096), (_, i) => {
      const offset = end + fields.varint(), length = fields.varint();
      demand(length > 0n && (offset > end || i === 0), "unreadable extents that are empty or adjacent");
      end = offset + length;
      return { offset, length };
    });
  }

  [INDEX](fields, ...place) {
    const first = fields.count(), count = fields.count(), size = fields.bytes.length;
    demand(first === this.indexed && count > 0 && size <= BLOCK, "an index part is empty or out of order");
    demand(this.parts.every(([, , , before]) => before >= 128), "an index part covers too few entries");
    let block = 0, path = Buffer.alloc(0), seconds = 0n;
    for (let number = first; number < first + count; number++) {
      const found = [(block += Number(zigzag(fields.varint()))), fields.count(), fields.count(), fields.byte()];
      const before = path, shared = fields.count(), rest = fields.text();
      demand(shared <= before.length && (shared === before.length || before[shared] !== rest[0]), "paths share more");
      path = Buffer.concat([before.subarray(0, shared), rest]);
      found.push(fields.count(), fields.count(), fields.count(), fields.varint(), (seconds += zigzag(fields.varint())));
      const entry = this.entries[number] ?? {}, { mode = 0, uid = 0, gid = 0, size = 0n } = entry;
      const type = entry.type | (entry.incomplete ? 0x80 : 0);
      const expected = [...(entry.place ?? []), entry.span, type, mode, uid, gid, size, wholeSeconds(entry.mtime_ns)];
      demand(same(found, expected) && path.equals(entry.path), `the index differs for entry ${number}`);
    }
    this.parts.push([first, ...place, count]);
    this.indexed += count;
  }

  [ROOT](fields, number, offset) {
    const entries = fields.count(), before = this.blocks.slice(0, number).map((each) => each.length);
    const parts = repeat(fields.count(), () => [fields.count(), fields.count(), fields.count()]);
    const lengths = repeat(fields.count(), () => fields.count());
    demand(offset === 0 && this.indexed === entries && entries === this.count, "entries are not indexed");
    const places = this.parts.map((part) => part.slice(0, 3));
    demand(same(parts, places) && same(lengths, before), "the root differs");
    demand(this.blocks.slice(number).every((each) => !(each.flags & (DICTIONARY | LEADER))), "the root needs a leader");
    this.root = { ...this.blocks[number], last: this.blocks.length - 1 };
  }

  [TRAILER](fields, number, offset) {
    const found = repeat(4, () => fields.read(8).readBigUInt64LE());
    this.whole = same(found, [this.root?.position - this.start, this.root?.number, this.count, number + 1]);
    const { flags } = this.blocks[number];
    demand(this.whole && flags === LAST && offset === 0 && number === this.root.last + 1, "the trailer differs");
  }
}

function print({ place, span, size, ...entry }) {
  const text = (bytes) => bytes?.toString("latin1"), type = ["file", "directory", "link"][entry.type - 1];
  const xattrs = entry.xattrs && Object.fromEntries(entry.xattrs.map((pair) => pair.map(text)));
  const shown = { ...entry, type, path: text(entry.path), target: text(entry.target), xattrs };
  shown.mode = entry.mode?.toString(8).padStart(4, "0");
  if (entry.type === FILE) shown.size = size;
  const mark = (_, value) => (typeof value === "bigint" ? `\u2116${value}` : value); // no byte is this character
  const line = JSON.stringify(shown, mark).replace(/"\u2116(-?\d+)"/g, "$1");
  process.stdout.write(Buffer.from(`${line}\n`, "latin1"));
}

const folder = mkdtempSync("/tmp/second-reader-");
process.on("exit", () => rmSync(folder, { recursive: true }));
let archive;
try {
  const [key, path] = process.argv.slice(2), file = new Fields(readFileSync(path));
  const keys = openHeader(file, readFileSync(key)), header = file.bytes.subarray(0, file.at);
  archive = new Archive(file.at);
  for (const block of readBlocks(file, keys, folder)) archive.block(block);
  demand(archive.whole, "the archive has no trailer");
  const end = [Buffer.from(Uint32Array.of(header.length).buffer), Buffer.from(END_MARK, "hex")];
  demand(file.bytes.subarray(file.at).equals(Buffer.concat([header, ...end])), "the footer differs, or something follows it");
} catch (error) {
  console.error(`second-reader: ${error.message}`);
  process.exitCode = 1;
}
Object.values(archive?.entries ?? []).forEach(print);
