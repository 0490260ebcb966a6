// A second reader of qvx archives, written from docs/qvx-format.md alone, so that an error in both the page and the
// programs is found. `node second_reader.mjs KEY.pem ARCHIVE` reads the archive once from front to back, compares
// index, root and trailer with the entries, and prints a line of JSON for each entry in the order of the numbers (its
// strings are the bytes of the archive, which need not be UTF-8). Status 1: the archive cannot be read, or contradicts
// itself. The lines are of complete entries; some may be missing. The rules for a single record or entry are not checked
// here: that the programs enforce them is for ForgedArchive and EntryCodec in tests/unit.
import { spawnSync } from "node:child_process";
import { createDecipheriv, createECDH, createHash, createHmac, createPrivateKey, hkdfSync } from "node:crypto";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";

const HEADER = "89515658" + "0d0a1a0a" + "0100" + "0300" + "01080000" + "00000000000000c0" + "00001000";
const END_MARK = "89515658" + "454e440a", FRAME = "28b52ffd" + "a000001000", LAST_BLOCK = 36;
const SSH_KEY = "\0\0\0\x13ecdsa-sha2-nistp256\0\0\0\x08nistp256\0\0\0\x41"; // and the point
const BLOCK = 1 << 20, TAG = 16, RECORD_HEADER = 4;
const LAST = 1, COMPRESSED = 2, DICTIONARY = 4, LEADER = 8, LEADERS = 16, CONTINUES = 0x80;
const FLAGS = [0, LAST, COMPRESSED, COMPRESSED | DICTIONARY, LEADER, COMPRESSED | LEADER];
const PAD = 0, ENTRY = 1, DATA = 2, HOLE = 3, END = 4, INDEX = 5, ROOT = 6, TRAILER = 7;
const FILE = 1, LINK = 3, MAX_HASHED_ZEROS = 1n << 34n;
const WHO = ["user", "user", "group", "group", "mask", "other"], USER = 1, GROUP = 3;

const demand = (condition, what) => { if (!condition) throw new Error(what); };
const same = (one, other) => String(one) === String(other);
const repeat = (length, make) => Array.from({ length }, make);
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
    let value = 0n;
    for (let byte = 0x80, shift = 0n; byte & 0x80; shift += 7n) {
      byte = this.byte();
      value |= BigInt(byte & 0x7f) << shift;
    }
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

// A second frame can only be empty: the first one states the size of the block.
function decompress(frame, dictionary) {
  demand(frame.toString("hex", 0, 9) === FRAME, "not the frame that is allowed");
  const result = spawnSync("zstd", ["-qdc", ...dictionary], { input: frame, maxBuffer: BLOCK });
  demand(result.status === 0, `a bad frame: ${result.error ?? result.stderr}`);
  return result.stdout;
}

function* readBlocks(file, keys, folder) {
  const leaders = [], content = (leader) => `${folder}/${leader}`;
  for (let number = 0, flags; flags !== LAST; number++) {
    const position = file.at, header = file.read(24), length = header.readUIntLE(4, 3);
    flags = header[7];
    const known = header.readUInt32BE() === 0x51565842 && header.readBigUInt64LE(8) === BigInt(number);
    demand(known && FLAGS.includes(flags) && number < 1 << 21, "no header of this block, or too many blocks");
    const leader = Number(header.readBigUInt64LE(16));
    demand(flags & DICTIONARY ? leaders.includes(leader) : leader === 0, "the leader of a block is none of the last");
    const stored = unseal(keys, number, file.read(length), header);
    const dictionary = flags & DICTIONARY ? ["-D", content(leader)] : [];
    const plain = flags & COMPRESSED ? decompress(stored, dictionary) : stored;
    demand(plain.length === (flags === LAST ? LAST_BLOCK : BLOCK), "the length of a block is impossible");
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
    demand(!state.open || (at === 0 && type === state.open.type), "a split record does not continue");
    const record = (state.open ??= { type, block, offset: at, payload: Buffer.alloc(0) });
    record.payload = Buffer.concat([record.payload, plain.subarray(begin, end)]);
    at = end;
    if (continues) break;
    state.open = null;
    if (type !== PAD) yield record;
  }
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
    const number = fields.count(), byte = fields.byte(), entry = { number, type: byte & 0x7f, path: fields.text() };
    const present = fields.count();
    for (const [bit, key] of ["uid", "gid", "mode", "flags"].entries())
      if (present & (1 << bit)) entry[key] = fields.count();
    if (present & 0x10) entry.mtime_ns = fields.read(8).readBigInt64LE();
    const time = () => BigInt.asIntN(64, zigzag(fields.varint()) + (entry.mtime_ns ?? 0n));
    if (present & 0x20) entry.ctime_ns = time();
    if (present & 0x40) entry.btime_ns = time();
    const announced = byte > 0x80;
    this.open = { entry, place, announced, size: 0n, holes: 0, digest: sha256(""), target: [] };
  }

  [DATA](fields) {
    const { entry, digest, target } = this.open, bytes = fields.read(fields.bytes.length);
    digest.update(bytes);
    this.open.size += BigInt(bytes.length);
    if (entry.type === LINK) target.push(bytes);
  }

  [HOLE](fields) {
    const length = fields.varint(), { announced, digest } = this.open;
    this.open.size += length;
    this.open.holes++;
    if (announced) this.zeros += length;
    this.open.covered = this.zeros > MAX_HASHED_ZEROS;
    for (let rest = announced && !this.open.covered ? length : 0n; rest > 0n; rest -= BigInt(BLOCK))
      digest.update(Buffer.alloc(rest > BLOCK ? BLOCK : Number(rest)));
  }

  [END](fields) {
    const { entry, place, announced, size, holes, digest, target, covered } = this.open;
    const present = fields.count(), has = (bit) => Boolean(present & (1 << bit)), isFile = entry.type === FILE;
    if (has(0)) entry.sha256 = fields.read(32).toString("hex");
    const expected = announced && !covered ? digest.digest("hex") : undefined;
    demand(entry.sha256 === expected, "the content's digest differs");
    demand(!has(1) || (fields.varint() === size && fields.count() === holes), "the content's sum differs");
    if (has(2)) entry.content_of = fields.count();
    if (has(3)) entry.hard_link = true;
    if (has(4)) entry.xattrs = repeat(fields.count(), () => [fields.text(), fields.text()]);
    if (has(5)) [entry.acl, entry.default_acl] = [this.accessList(fields), this.accessList(fields)];
    if (has(6)) Object.assign(entry, { incomplete: true, unreadable: this.extents(fields) });
    demand(!has(2) || this.entries[entry.content_of], "a reference to no content");
    if (entry.type === LINK) entry.target = Buffer.concat(target);
    entry.size = has(2) ? this.entries[entry.content_of].size : size;
    if (isFile && !has(2)) entry.holes = holes;
    this.entries[entry.number] = Object.assign(entry, { place, span: this.blocks.length - 1 - place[0] });
    this.count++;
    this.open = null;
  }

  // The text form of an access list.
  accessList(fields) {
    const lines = repeat(fields.count(), () => {
      const byte = fields.byte(), kind = byte >> 3, id = kind === USER || kind === GROUP ? fields.count() : "";
      return `${WHO[kind]}:${id}:${"rwx".replace(/./g, (letter, i) => (byte & (4 >> i) ? letter : "-"))}`;
    });
    return lines.join("\n");
  }

  extents(fields) {
    let end = 0n;
    return repeat(fields.count(), () => {
      const offset = end + fields.varint(), length = fields.varint();
      end = offset + length;
      return { offset, length };
    });
  }

  [INDEX](fields, ...place) {
    const first = fields.count(), count = fields.count();
    demand(first === this.indexed, "an index part is out of order");
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
    this.parts.push([first, ...place]);
    this.indexed += count;
  }

  [ROOT](fields, number, offset) {
    const entries = fields.count(), before = this.blocks.slice(0, number).map((each) => each.length);
    const parts = repeat(fields.count(), () => [fields.count(), fields.count(), fields.count()]);
    const lengths = repeat(fields.count(), () => fields.count());
    demand(offset === 0 && this.indexed === entries && entries === this.count, "entries are not indexed");
    demand(same(parts, this.parts) && same(lengths, before), "the root differs");
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
  demand(file.bytes.subarray(file.at).equals(Buffer.concat([header, ...end])), "the footer differs");
} catch (error) {
  console.error(`second-reader: ${error.message}`);
  process.exitCode = 1;
}
Object.values(archive?.entries ?? []).forEach(print);
