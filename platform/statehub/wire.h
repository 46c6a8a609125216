// What stands on the wire between a participant and a hub. Either side sends frames: a length of
// four bytes (little-endian) and a payload of operations. State goes the same way in both
// directions, as items: an entity's place (a container that both sides know by a number of the
// sender's, a collection in it, a key), its generation, and its attributes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ryx::platform {

enum class Op : uint8_t {
  // Both ways.
  hello = 1,   // magic, protocol version, who it is (or the hub's incarnation)
  type = 2,    // number, name, key's wire form, attributes (name, wire form), collections (name)
  item = 3,    // flags, container, collection, type, [handle], generation, key, attributes, 0
  root = 4,    // container, attributes, 0: the container's own attributes
  remove = 5,  // container, collection, type, generation, key
  forget = 6,  // container: its number means nothing any more
  cut = 7,     // everything up to some version (the hub says which) was sent, nothing newer missing
  sweep = 8,   // container, reach: what was not sent again since its `compare` is gone
  compare = 9,  // container, reach: all below it is going to be sent again
  same = 10,    // container: in its journal stands what stood at the cut, but for what follows
  // From a participant.
  mount = 20,      // number, path, type name, mode
  batch = 21,      // number of the writes behind it in this frame
  heartbeat = 22,  // it lives, and its loop runs
  offer = 23,      // number, name, type name, incarnation: a Mirra table; a descriptor goes with it
  withdraw = 24,   // offer: it is no more
  attach = 25,     // number, name: it reads that table
  detach = 26,     // attachment: it does no more
  ring = 27,       // offer: something was written to it
  settle = 28,     // 0: what its forerunner offered, and it does not, is no more
  // From the hub.
  mounted = 30,   // mount, status, container (when it succeeded), type
  synced = 31,    // mount: all of it has been sent
  applied = 32,   // batch: what follows includes it
  ack = 33,       // batch: so does all that it implied
  refused = 34,   // a write was refused; what holds follows
  farewell = 35,  // reason, text: the hub ends the connection
  table = 36,     // attachment, state, incarnation, type name: what is offered; [a descriptor]
  rang = 37,      // attachment: something was written to it
};

inline constexpr uint32_t kWireMagic = 0x31585952;  // "RYX1"
inline constexpr uint32_t kWireVersion = 3;

// Why a hub ends a connection.
enum class Farewell : uint8_t {
  brokeProtocol = 1,
  notPermitted = 2,  // that name, for that user
  nameTaken = 3,     // another one of that name is connected
};

// Item flags.
inline constexpr uint8_t kItemWhole = 1;   // attributes that are not there have their defaults
inline constexpr uint8_t kItemHandle = 2;  // a number for this entity as a container follows
inline constexpr uint8_t kItemCreate = 4;  // the sender made it (else it is one that it was sent)
inline constexpr uint8_t kItemTell = 8;    // the sender is to be told what stands afterwards

// How far `compare` and `sweep` reach: to the journals below, or through them.
enum class Reach : uint8_t { journal = 0, tree = 1 };

// Named bounds.
inline constexpr size_t kMaxFrame = 4 << 20;          // bytes of one frame's payload
inline constexpr size_t kMaxFirstFrame = 512 * 1024;  // of one whose sender said no hello yet
// Where a sender starts a new frame. A frame is applied without a pause: those of a participant are
// short, since the hub serves the others between them.
inline constexpr size_t kFrameOfHub = 32 * 1024;
inline constexpr size_t kFrameOfParticipant = 16 * 1024;
inline constexpr size_t kSendAhead = 256 * 1024;   // unsent bytes past which nothing is encoded
inline constexpr uint32_t kMaxHandles = 4u << 20;  // containers that one side may number
inline constexpr uint32_t kMaxTypes = 4096;        // types that one side may declare
inline constexpr size_t kMaxPath = 4096;           // bytes of a mount's path
inline constexpr size_t kMaxTables = 4096;         // that one participant offers, and reads
inline constexpr size_t kMaxFilesOfFrame = 64;     // descriptors that go with one frame
inline constexpr size_t kMaxTold = 16384;  // answers owed past which a participant is not read
inline constexpr double kForcedCutSeconds = 0.02;  // a cut is forced when none came for so long

}  // namespace ryx::platform
