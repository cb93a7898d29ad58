// Shared by the platform tests: the corpus's frame tables, byte helpers for tags, and a recorder
// that feeds bytes to a real parser in chosen chunks and writes down what comes back.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Audio/Platform/AudioFileStream.h"
#include "corpus/Corpus.h"

namespace stream_parser_test {

using Bytes = std::vector<uint8_t>;

using namespace corpus;

// One frame as the corpus lists it in <name>.frames.tsv.
struct CorpusFrame {
  size_t offset;
  size_t size;
  std::string kind;  // "audio", "info:Info", "info:Xing", "info:Info(mid-stream,...)"
  int mpeg;          // 1, 2, or 25 for MPEG-2.5
  uint32_t rate;
  uint32_t channels;
  uint32_t kbps;
  bool crc;
};

inline std::vector<CorpusFrame> ReadCorpusFrames(const std::string& mp3Name) {
  std::vector<CorpusFrame> frames;
  for (const auto& row : ReadTsv(mp3Name.substr(0, mp3Name.size() - 4) + ".frames.tsv")) {
    const std::string mpeg = row.at("mpeg");
    frames.push_back({std::stoul(row.at("offset")), std::stoul(row.at("size")), row.at("kind"),
                      mpeg == "2.5" ? 25 : std::stoi(mpeg), uint32_t(std::stoul(row.at("rate"))),
                      uint32_t(std::stoul(row.at("channels"))), uint32_t(std::stoul(row.at("bitrate_k"))),
                      row.at("crc") == "1"});
  }
  return frames;
}

// The frames a player must receive: all but a Xing/Info frame that starts the stream.
inline std::vector<CorpusFrame> AudioFrames(const std::string& mp3Name) {
  std::vector<CorpusFrame> frames = ReadCorpusFrames(mp3Name);
  if (!frames.empty() && frames.front().kind.starts_with("info:")) frames.erase(frames.begin());
  return frames;
}

inline std::vector<Bytes> FrameBytes(const Bytes& file, const std::vector<CorpusFrame>& frames) {
  std::vector<Bytes> packets;
  for (const CorpusFrame& frame : frames) {
    packets.emplace_back(file.begin() + long(frame.offset), file.begin() + long(frame.offset + frame.size));
  }
  return packets;
}

// The audio frames of a corpus file, as packets.
inline std::vector<Bytes> AudioFrameBytes(const std::string& mp3Name) {
  return FrameBytes(ReadCorpusFile(mp3Name), AudioFrames(mp3Name));
}

inline Bytes Join(const std::vector<Bytes>& parts) {
  Bytes joined;
  for (const Bytes& part : parts) joined.insert(joined.end(), part.begin(), part.end());
  return joined;
}

// An APE tag header (flags with bit 29) or footer: version, size (of items and footer), flags.
inline Bytes ApeHeader(uint32_t version, uint32_t size, uint32_t flags) {
  Bytes out = {'A', 'P', 'E', 'T', 'A', 'G', 'E', 'X'};
  for (uint32_t value : {version, size, 0u, flags, 0u, 0u}) {
    out.insert(out.end(), {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)});
  }
  return out;
}

// A format as the listener read it with AudioFileStreamGetProperty, and how many packets had
// been delivered before it.
struct ReportedFormat {
  size_t packetsBefore;
  double sampleRate;
  uint32_t channels;
  uint32_t framesPerPacket;
  bool operator==(const ReportedFormat&) const = default;
};

inline void PrintTo(const ReportedFormat& format, std::ostream* out) {
  *out << "{before packet " << format.packetsBefore << ": " << format.sampleRate << " Hz, " << format.channels
       << " ch, " << format.framesPerPacket << " frames/packet}";
}

// Everything a parser gave back for one stream.
struct ParsedStream {
  std::vector<Bytes> packets;
  std::vector<ReportedFormat> formats;
  size_t packetCallbacks = 0;
  // Where each packet starts in the stream when it was delivered by pointer into the bytes of the
  // feeding call, kNotInPlace when it came from the parser's own copy.
  static constexpr int64_t kNotInPlace = -1;
  std::vector<int64_t> offsets;
  std::vector<OSStatus> statuses;   // of every AudioFileStreamParseBytes call
  std::vector<std::string> faults;  // broken promises seen inside the callbacks

  bool Failed() const {
    return std::any_of(statuses.begin(), statuses.end(), [](OSStatus status) { return status != noErr; });
  }
};

// Feeds a stream to a new parser and checks, inside every callback, what must hold of it: property
// order, the format read back from within the listener, descriptions that tile the data.
class ParserRecorder {
 public:
  ParserRecorder() {
    EXPECT_EQ(noErr, AudioFileStreamOpen(this, &OnProperty, &OnPackets, kAudioFileMP3Type, &stream_));
  }
  ~ParserRecorder() { EXPECT_EQ(noErr, AudioFileStreamClose(stream_)); }
  ParserRecorder(const ParserRecorder&) = delete;
  ParserRecorder& operator=(const ParserRecorder&) = delete;

  AudioFileStreamID stream() const { return stream_; }

  // Feeds bytes[from, from + size) from a copy of its own, freed as soon as the call returns, so that
  // a parser that keeps a pointer into the caller's bytes is caught by AddressSanitizer.
  OSStatus Feed(const Bytes& bytes, size_t from, size_t size) {
    const Bytes chunk(bytes.begin() + long(from), bytes.begin() + long(from + size));
    chunkBegin_ = chunk.data();
    chunkEnd_ = chunk.data() + chunk.size();
    chunkOffset_ = int64_t(from);
    const OSStatus status = AudioFileStreamParseBytes(stream_, uint32_t(size), chunk.data(), 0);
    chunkBegin_ = chunkEnd_ = nullptr;
    parsed_.statuses.push_back(status);
    return status;
  }

  // Feeds the whole stream in chunks of the sizes nextChunkSize returns (the last one clipped).
  void FeedAll(const Bytes& bytes, const std::function<size_t()>& nextChunkSize) {
    for (size_t from = 0; from < bytes.size();) {
      const size_t size = std::min(nextChunkSize(), bytes.size() - from);
      Feed(bytes, from, size);
      from += size;
    }
  }

  const ParsedStream& parsed() const { return parsed_; }

  // Called from inside the callbacks when set; runs after the recording.
  std::function<void()> onCallback;

 private:
  static void OnProperty(void* client, AudioFileStreamID stream, AudioFileStreamPropertyID property, uint32_t*) {
    auto& self = *static_cast<ParserRecorder*>(client);
    std::vector<std::string>& faults = self.parsed_.faults;
    if (stream != self.stream_) faults.push_back("a callback naming another stream");
    if (property == kAudioFileStreamProperty_DataFormat) {
      self.expectReady_ = true;
    } else if (property == kAudioFileStreamProperty_ReadyToProducePackets) {
      if (!self.expectReady_) faults.push_back("ready-to-produce-packets without a data format before it");
      self.expectReady_ = false;
      self.RecordFormat();
    } else {
      faults.push_back("unexpected property");
    }
    if (self.onCallback) self.onCallback();
  }

  static void OnPackets(void* client, uint32_t numberBytes, uint32_t numberPackets, const void* data,
                        AudioStreamPacketDescription* descriptions) {
    auto& self = *static_cast<ParserRecorder*>(client);
    ParsedStream& parsed = self.parsed_;
    ++parsed.packetCallbacks;
    if (self.expectReady_) parsed.faults.push_back("packets between the data format and ready-to-produce-packets");
    if (parsed.formats.empty()) parsed.faults.push_back("packets before any format");
    if (numberPackets == 0 || descriptions == nullptr) {
      parsed.faults.push_back("a packet callback without packets");
      return;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    const bool inPlace = bytes >= self.chunkBegin_ && bytes + numberBytes <= self.chunkEnd_;
    int64_t expectedOffset = 0;
    for (uint32_t i = 0; i < numberPackets; ++i) {
      const AudioStreamPacketDescription& description = descriptions[i];
      if (description.mStartOffset != expectedOffset || description.mVariableFramesInPacket != 0) {
        parsed.faults.push_back("descriptions that do not tile the data");
        return;
      }
      expectedOffset += description.mDataByteSize;
      if (expectedOffset > int64_t(numberBytes)) {
        parsed.faults.push_back("a packet beyond the data");
        return;
      }
      parsed.packets.emplace_back(bytes + description.mStartOffset, bytes + expectedOffset);
      parsed.offsets.push_back(inPlace ? self.chunkOffset_ + (bytes - self.chunkBegin_) + description.mStartOffset
                                       : ParsedStream::kNotInPlace);
    }
    if (expectedOffset != int64_t(numberBytes)) parsed.faults.push_back("data beyond the last packet");
    if (self.onCallback) self.onCallback();
  }

  // Reads the format back from inside the listener, as the player does.
  void RecordFormat() {
    AudioStreamBasicDescription format{};
    uint32_t size = sizeof format;
    const OSStatus status = AudioFileStreamGetProperty(stream_, kAudioFileStreamProperty_DataFormat, &size, &format);
    if (status != noErr || size != sizeof format || format.mFormatID != kAudioFormatMPEGLayer3 ||
        format.mFormatFlags != 0 || format.mBytesPerPacket != 0 || format.mBytesPerFrame != 0 ||
        format.mBitsPerChannel != 0 || format.mReserved != 0) {
      parsed_.faults.push_back("the data format does not read back as an MP3 description");
    }
    parsed_.formats.push_back(
        {parsed_.packets.size(), format.mSampleRate, format.mChannelsPerFrame, format.mFramesPerPacket});
  }

  AudioFileStreamID stream_ = nullptr;
  ParsedStream parsed_;
  bool expectReady_ = false;
  const uint8_t* chunkBegin_ = nullptr;
  const uint8_t* chunkEnd_ = nullptr;
  int64_t chunkOffset_ = 0;
};

// Parses a whole stream in chunks of the sizes nextChunkSize returns; by default in one piece.
inline ParsedStream ParseInChunks(const Bytes& bytes, std::function<size_t()> nextChunkSize = {}) {
  ParserRecorder recorder;
  recorder.FeedAll(bytes, nextChunkSize ? nextChunkSize : [&] { return bytes.size(); });
  return recorder.parsed();
}

}  // namespace stream_parser_test
