// libVyrCam packet classes: the counter-link board's packets as the updater
// builds and parses them. Wire layout: docs/wire-format.md.
//
// Every packet on the wire is
//   [0] total length L of the packet in bytes (header + payload + check)
//   [1] type code
//   [2] sequence number
//   [3 .. L-3] payload (type specific, little-endian integers)
//   [L-2, L-1] CRC-16/CCITT-FALSE of bytes 0 .. L-3, high byte first
// so a packet can be checked for length, type and integrity on its own,
// before any of its fields is trusted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VYRCam {

// Type codes. The board sends 3 and 32..36 (34 is reserved on the board and
// never dispatched by the updater); the host's codes sit below 32.
enum TypeCode : std::uint8_t {
  kDatalinkPacketAck = 3,
  kRequestUpdateInfo = 16,
  kUpdateAvailable = 17,
  kFirmwareBlock = 18,
  kApplyUpdate = 19,
  kClearPendingUpdate = 20,
  kUpdateInfo = 32,
  kReceivedFirmwareBlock = 33,
  kUpdateComplete = 35,
  kUpdateError = 36,
};

// Unpack results; 0 is success.
enum UnpackResult : int {
  kUnpackOk = 0,
  kUnpackTruncated = 1,    // fewer bytes available than the header or the length byte says
  kUnpackBadLength = 2,    // length byte impossible for this type
  kUnpackWrongType = 3,    // type byte is not this class's
  kUnpackBadChecksum = 4,  // CRC mismatch
};

inline constexpr std::size_t kHeaderBytes = 3;
inline constexpr std::size_t kCheckBytes = 2;
inline constexpr std::size_t kMaxPacketBytes = 255;

class Packet {
 public:
  virtual ~Packet();
  // Writes exactly Length() bytes to `out`.
  virtual void Pack(std::uint8_t* out) const;
  // Parses a packet from the first `available` bytes of `data` (more may
  // follow; they are not looked at). Never reads past `available`.
  // 0 on success, an UnpackResult otherwise; on failure the object keeps
  // its previous values.
  virtual int Unpack(const char* data, std::size_t available);
  virtual bool NeedsAck() const;

  int Length() const;  // whole packet on the wire, bytes
  std::uint8_t Type() const { return type_; }
  void SequenceNumber(unsigned sequence) { sequence_ = static_cast<std::uint8_t>(sequence); }
  unsigned SequenceNumber() const { return sequence_; }

 protected:
  explicit Packet(std::uint8_t type) : type_(type) {}
  Packet(const Packet&) = default;
  Packet& operator=(const Packet&) = default;

  // Payload hooks for the concrete classes.
  virtual std::size_t PayloadLength() const = 0;
  virtual void PackPayload(std::uint8_t* out) const = 0;
  // `length` is the payload length taken from the length byte; return false
  // when it is impossible for the type (kUnpackBadLength).
  virtual bool PayloadLengthValid(std::size_t length) const = 0;
  virtual void UnpackPayload(const std::uint8_t* payload, std::size_t length) = 0;

 private:
  std::uint8_t type_;
  std::uint8_t sequence_ = 0;
};

// ---- host to board --------------------------------------------------------

class RequestUpdateInfo : public Packet {
 public:
  RequestUpdateInfo();

 protected:
  std::size_t PayloadLength() const override { return 0; }
  void PackPayload(std::uint8_t*) const override {}
  bool PayloadLengthValid(std::size_t length) const override { return length == 0; }
  void UnpackPayload(const std::uint8_t*, std::size_t) override {}
};

class UpdateAvailable : public Packet {
 public:
  UpdateAvailable();
  UpdateAvailable(std::uint16_t version, std::uint16_t hash, std::uint32_t chunks);
  std::uint16_t Version() const { return version_; }
  std::uint16_t Hash() const { return hash_; }
  std::uint32_t Chunks() const { return chunks_; }  // image length in bytes
 protected:
  std::size_t PayloadLength() const override { return 8; }
  void PackPayload(std::uint8_t* out) const override;
  bool PayloadLengthValid(std::size_t length) const override { return length == 8; }
  void UnpackPayload(const std::uint8_t* payload, std::size_t length) override;

 private:
  std::uint16_t version_ = 0, hash_ = 0;
  std::uint32_t chunks_ = 0;
};

class FirmwareBlock : public Packet {
 public:
  static constexpr std::size_t kMaxData = kMaxPacketBytes - kHeaderBytes - kCheckBytes - 4;
  FirmwareBlock();
  // Throws std::length_error when `data` exceeds kMaxData.
  FirmwareBlock(int blockNum, std::vector<unsigned char> data);
  int BlockNum() const { return blockNum_; }
  const std::vector<unsigned char>& Data() const { return data_; }

 protected:
  std::size_t PayloadLength() const override { return 4 + data_.size(); }
  void PackPayload(std::uint8_t* out) const override;
  bool PayloadLengthValid(std::size_t length) const override { return length >= 4; }
  void UnpackPayload(const std::uint8_t* payload, std::size_t length) override;

 private:
  int blockNum_ = 0;
  std::vector<unsigned char> data_;
};

class ApplyUpdate : public Packet {
 public:
  ApplyUpdate();

 protected:
  std::size_t PayloadLength() const override { return 0; }
  void PackPayload(std::uint8_t*) const override {}
  bool PayloadLengthValid(std::size_t length) const override { return length == 0; }
  void UnpackPayload(const std::uint8_t*, std::size_t) override {}
};

class ClearPendingUpdate : public Packet {
 public:
  ClearPendingUpdate();

 protected:
  std::size_t PayloadLength() const override { return 0; }
  void PackPayload(std::uint8_t*) const override {}
  bool PayloadLengthValid(std::size_t length) const override { return length == 0; }
  void UnpackPayload(const std::uint8_t*, std::size_t) override {}
};

// ---- board to host --------------------------------------------------------

class DatalinkPacketAck : public Packet {
 public:
  DatalinkPacketAck();
  DatalinkPacketAck(std::uint8_t ackedSequence, bool ok);
  bool AckIsOk() const { return ok_; }
  std::uint8_t AckedSequenceNumber() const { return acked_; }
  bool NeedsAck() const override { return false; }

 protected:
  std::size_t PayloadLength() const override { return 2; }
  void PackPayload(std::uint8_t* out) const override;
  bool PayloadLengthValid(std::size_t length) const override { return length == 2; }
  void UnpackPayload(const std::uint8_t* payload, std::size_t length) override;

 private:
  std::uint8_t acked_ = 0;
  bool ok_ = false;
};

class UpdateInfo : public Packet {
 public:
  UpdateInfo();
  UpdateInfo(std::uint16_t partialVersion, std::uint32_t downloadedBlocks, std::uint8_t blockSize,
             int flashRegion);
  std::uint16_t PartialVersion() const { return partialVersion_; }
  std::uint32_t DownloadedBlocks() const { return downloadedBlocks_; }
  std::uint8_t BlockSize() const { return blockSize_; }
  int FlashRegion() const { return flashRegion_; }
  bool NeedsAck() const override { return false; }

 protected:
  std::size_t PayloadLength() const override { return 11; }
  void PackPayload(std::uint8_t* out) const override;
  bool PayloadLengthValid(std::size_t length) const override { return length == 11; }
  void UnpackPayload(const std::uint8_t* payload, std::size_t length) override;

 private:
  std::uint16_t partialVersion_ = 0;
  std::uint32_t downloadedBlocks_ = 0;
  std::uint8_t blockSize_ = 0;
  int flashRegion_ = 0;
};

class ReceivedFirmwareBlock : public Packet {
 public:
  ReceivedFirmwareBlock();
  ReceivedFirmwareBlock(int lastReceived, std::uint32_t next);
  int LastReceived() const { return lastReceived_; }
  std::uint32_t Next() const { return next_; }  // 0xFFFFFFFF: nothing more wanted
  bool NeedsAck() const override { return false; }

 protected:
  std::size_t PayloadLength() const override { return 8; }
  void PackPayload(std::uint8_t* out) const override;
  bool PayloadLengthValid(std::size_t length) const override { return length == 8; }
  void UnpackPayload(const std::uint8_t* payload, std::size_t length) override;

 private:
  int lastReceived_ = -1;
  std::uint32_t next_ = 0xFFFFFFFFu;
};

class UpdateComplete : public Packet {
 public:
  UpdateComplete();
  bool NeedsAck() const override { return false; }

 protected:
  std::size_t PayloadLength() const override { return 0; }
  void PackPayload(std::uint8_t*) const override {}
  bool PayloadLengthValid(std::size_t length) const override { return length == 0; }
  void UnpackPayload(const std::uint8_t*, std::size_t) override {}
};

class UpdateError : public Packet {
 public:
  UpdateError();
  bool NeedsAck() const override { return false; }

 protected:
  std::size_t PayloadLength() const override { return 0; }
  void PackPayload(std::uint8_t*) const override {}
  bool PayloadLengthValid(std::size_t length) const override { return length == 0; }
  void UnpackPayload(const std::uint8_t*, std::size_t) override {}
};

}  // namespace VYRCam
