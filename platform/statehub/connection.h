// A framed byte stream over a connected stream socket, driven by the loop. It owns the descriptor.
// Nothing here knows what is in a frame. All on the loop's side of the activity lock.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/api.h"
#include "platform/base/file.h"

namespace ryx::platform {

class RYX_PRIVATE Connection {
 public:
  // Whom it serves. Each may destroy the connection.
  class Peer {
   public:
    virtual ~Peer() = default;
    // One frame's payload. False: the peer broke the protocol; the connection is closed then.
    virtual bool onFrame(std::string_view payload) = 0;
    // All frames that had arrived were handed over.
    virtual void onFramesDone() {}
    // There is room for more to send.
    virtual void onWritable() = 0;
    // It is gone, by either side's doing; nothing is called any more.
    virtual void onClosed() = 0;
  };

  Connection(int fd, Peer& peer);
  ~Connection();

  bool open() const;
  int fd() const;
  // Frames of `payload` (each at most kMaxFrame) for sending; what the socket takes goes at once.
  void send(std::string_view payload) { send(payload, {}); }
  // With descriptors, at most kMaxFilesOfFrame, that the other side has with the frame. To be
  // called where carriesFiles().
  void send(std::string_view payload, std::vector<File> files);
  bool carriesFiles() const;
  // The next of the descriptors that came with frames, in their order; none when there is none.
  File takeFile();
  // More than so many that nobody took end the connection: none, unless told.
  void mostFilesIs(size_t files);
  size_t unsent() const;
  uint64_t bytesSent() const;
  uint64_t bytesReceived() const;
  // The other side sends nothing any more; what it sent may be unread still.
  bool peerIsGone() const;
  // Without waiting for the loop. Not from within a callback of this connection.
  void readNow();
  // Frames that are longer end the connection: kMaxFrame, unless told.
  void longestFrameIs(size_t bytes);
  // Whether what arrives is read. What was read already is handed over in any case.
  void readingIs(bool on);
  void close();

 private:
  class Socket;
  std::unique_ptr<Socket> socket_;
};

}  // namespace ryx::platform
