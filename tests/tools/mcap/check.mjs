// SPDX-License-Identifier: Apache-2.0
// Reads slotctl recordings with the published TypeScript MCAP library (@mcap/core), and writes
// a recording with it for slotctl replay. zstd chunks are unpacked with fzstd (pinned in
// package-lock.json).
//
//   node check.mjs verify KIND BLOCKS_FILE [--cut] FILE...
//       The FILEs, in order, hold one channel each, of the slot kind KIND, and together the
//       blocks of BLOCKS_FILE (one per line) in order with rising sequence numbers. Complete
//       files are also read through their summary and indexes; --cut files (a killed recorder)
//       only as a stream, which must find no summary.
//   node check.mjs write FILE TOPIC BLOCK...
import { McapIndexedReader, McapStreamReader, McapWriter } from "@mcap/core";
import { decompress } from "fzstd";
import { open, readFile, writeFile } from "node:fs/promises";

const decompressHandlers = {
  zstd: (buffer, size) => {
    const out = decompress(buffer);
    if (BigInt(out.byteLength) !== size) throw new Error("zstd chunk of the wrong size");
    return out;
  },
};
const text = (bytes) => Buffer.from(bytes).toString("latin1");

function fail(message) {
  console.error(`check.mjs: ${message}`);
  process.exit(1);
}

function checkChannel(file, channel, kind) {
  const m = channel.metadata;
  // A pool's channel says so, and counts blocks where a slot's has a queue length.
  const size = m.get("object") === "pool" ? "block_count" : "queue_length";
  for (const key of ["kind", "max_block_size", size, "host", "libslot_version"]) {
    if (!m.has(key)) fail(`${file}: channel ${channel.topic} has no metadata ${key}`);
  }
  if (m.get("kind") !== kind) fail(`${file}: kind ${m.get("kind")}, expected ${kind}`);
  if (channel.messageEncoding !== "application/octet-stream") fail(`${file}: encoding`);
  if (channel.schemaId !== 0) fail(`${file}: a schema where there is none`);
}

// Every record of the file through the stream reader; whether it reached the footer.
async function streamRead(file, onMessage, onChannel) {
  const reader = new McapStreamReader({ decompressHandlers, validateCrcs: true });
  reader.append(await readFile(file));
  let footer = false;
  for (let record; (record = reader.nextRecord()); ) {
    if (record.type === "Channel") onChannel(record);
    if (record.type === "Message") onMessage(record);
    if (record.type === "Footer") footer = true;
  }
  return footer && reader.done();
}

async function indexedRead(file) {
  const handle = await open(file, "r");
  const readable = {
    size: async () => BigInt((await handle.stat()).size),
    read: async (offset, size) => {
      const buffer = new Uint8Array(Number(size));
      await handle.read(buffer, 0, buffer.length, Number(offset));
      return buffer;
    },
  };
  try {
    const reader = await McapIndexedReader.Initialize({ readable, decompressHandlers });
    const messages = [];
    if (reader.chunkIndexes.length > 0) {
      for await (const m of reader.readMessages({ validateCrcs: true })) messages.push(m);
    }
    return { reader, messages };
  } finally {
    await handle.close();
  }
}

async function verify(kind, blocksFile, args) {
  const cut = args[0] === "--cut";
  const files = cut ? args.slice(1) : args;
  const expected = (await readFile(blocksFile, "latin1")).split("\n").filter((l) => l !== "");
  const seen = [];
  let lastSequence = -1;
  for (const file of files) {
    const channels = new Map();
    const streamed = [];
    const complete = await streamRead(file, (m) => streamed.push(m), (c) => channels.set(c.id, c));
    if (complete === cut) fail(`${file}: ${cut ? "has a summary, yet was cut" : "is not complete"}`);
    if (channels.size !== 1) fail(`${file}: ${channels.size} channels, expected 1`);
    for (const channel of channels.values()) checkChannel(file, channel, kind);
    for (const m of streamed) {
      if (m.sequence <= lastSequence) fail(`${file}: sequence ${m.sequence} after ${lastSequence}`);
      lastSequence = m.sequence;
      seen.push(text(m.data));
    }
    if (!cut) {
      const { reader, messages } = await indexedRead(file);
      const stats = reader.statistics;
      if (!stats || stats.messageCount !== BigInt(streamed.length)) fail(`${file}: statistics`);
      if (reader.channelsById.size !== 1) fail(`${file}: summary channels`);
      for (const channel of reader.channelsById.values()) checkChannel(file, channel, kind);
      // Chunked files: the indexes lead to the same messages in the same order.
      if (reader.chunkIndexes.length > 0) {
        const indexed = messages.map((m) => text(m.data));
        if (JSON.stringify(indexed) !== JSON.stringify(streamed.map((m) => text(m.data)))) {
          fail(`${file}: the indexes give other messages than the stream`);
        }
      }
    }
  }
  if (JSON.stringify(seen) !== JSON.stringify(expected)) {
    fail(`blocks differ: got ${seen.length} [${seen.slice(0, 5)}...], expected ${expected.length}`);
  }
  console.log(`check.mjs: ${files.length} file(s), ${seen.length} blocks as expected`);
}

async function write(file, topic, blocks) {
  const chunks = [];
  let position = 0n;
  const writable = {
    write: async (buffer) => {
      chunks.push(Buffer.from(buffer));
      position += BigInt(buffer.byteLength);
    },
    position: () => position,
  };
  const writer = new McapWriter({ writable, chunkSize: 64 });
  await writer.start({ profile: "", library: "@mcap/core" });
  const channelId = await writer.registerChannel({
    topic,
    schemaId: 0,
    messageEncoding: "application/octet-stream",
    metadata: new Map([["kind", "reliable"], ["max_block_size", "1024"], ["queue_length", "64"]]),
  });
  let time = 1700000000000000000n;
  for (const [i, block] of blocks.entries()) {
    time += 1000n;
    await writer.addMessage({
      channelId, sequence: i + 1, logTime: time, publishTime: time, data: Buffer.from(block, "latin1"),
    });
  }
  await writer.end();
  await writeFile(file, Buffer.concat(chunks), { flag: "wx" });
}

const [command, ...rest] = process.argv.slice(2);
if (command === "verify") await verify(rest[0], rest[1], rest.slice(2));
else if (command === "write") await write(rest[0], rest[1], rest.slice(2));
else fail("usage: check.mjs verify KIND BLOCKS_FILE [--cut] FILE... | write FILE TOPIC BLOCK...");
