// The corpus's frame tables, and a real parser fed in chosen chunks.
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

// A row of <name>.frames.tsv.
struct CorpusFrame {
  size_t offset;
  size_t size;
  bool isInfo;  // a Xing/Info frame
  int mpeg;     // 1, 2, or 25 for MPEG-2.5
  uint32_t rate;
  uint32_t channels;
};

// All but a Xing/Info frame that starts the stream: the frames a player must receive.
inline std::vector<CorpusFrame> CorpusFrames(const std::string& mp3Name) {
  std::vector<CorpusFrame> frames;
  for (const auto& row : ReadTsv(mp3Name.substr(0, mp3Name.size() - 4) + ".frames.tsv")) {
    frames.push_back({std::stoul(row.at("offset")), std::stoul(row.at("size")),
                      row.at("kind").starts_with("info:"), row.at("mpeg") == "2.5" ? 25 : std::stoi(row.at("mpeg")),
                      uint32_t(std::stoul(row.at("rate"))), uint32_t(std::stoul(row.at("channels")))});
  }
  if (!frames.empty() && frames.front().isInfo) frames.erase(frames.begin());
  return frames;
}

inline std::vector<Bytes> AudioFrameBytes(const std::string& mp3Name) {
  const Bytes file = ReadCorpusFile(mp3Name);
  std::vector<Bytes> packets;
  for (const CorpusFrame& frame : CorpusFrames(mp3Name)) {
    packets.emplace_back(file.begin() + long(frame.offset), file.begin() + long(frame.offset + frame.size));
  }
  return packets;
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

// A format as the listener read it back, and how many packets had been delivered before it.
struct ReportedFormat {
  size_t packetsBefore;
  double sampleRate;
  uint32_t channels;
  uint32_t framesPerPacket;
  bool operator==(const ReportedFormat&) const = default;
};

struct ParsedStream {
  std::vector<Bytes> packets;
  std::vector<ReportedFormat> formats;
  bool failed = false;  // a call of AudioFileStreamParseBytes did not return noErr
};

// Feeds a whole stream to a new parser in chunks of the sizes nextChunkSize returns (by default in
// one piece), then an empty call. Each chunk comes from a copy freed as soon as the call returns,
// so that AddressSanitizer catches a parser that keeps a pointer into the caller's bytes.
inline ParsedStream ParseInChunks(const Bytes& bytes, std::function<size_t()> nextChunkSize = {}) {
  struct Recorder {
    ParsedStream parsed;
    AudioFileStreamID stream = nullptr;

    static void OnProperty(void* self, AudioFileStreamID stream, AudioFileStreamPropertyID property, uint32_t*) {
      if (property != kAudioFileStreamProperty_ReadyToProducePackets) return;
      ParsedStream& parsed = static_cast<Recorder*>(self)->parsed;
      AudioStreamBasicDescription format{};
      uint32_t size = sizeof format;
      EXPECT_EQ(noErr, AudioFileStreamGetProperty(stream, kAudioFileStreamProperty_DataFormat, &size, &format));
      EXPECT_EQ(kAudioFormatMPEGLayer3, format.mFormatID);
      parsed.formats.push_back({parsed.packets.size(), format.mSampleRate, format.mChannelsPerFrame,
                                format.mFramesPerPacket});
    }
    static void OnPackets(void* self, uint32_t numberBytes, uint32_t numberPackets, const void* data,
                          AudioStreamPacketDescription* descriptions) {
      ParsedStream& parsed = static_cast<Recorder*>(self)->parsed;
      EXPECT_FALSE(parsed.formats.empty()) << "packets before their format";
      const auto* bytes = static_cast<const uint8_t*>(data);
      int64_t end = 0;
      for (uint32_t i = 0; i < numberPackets; ++i) {
        ASSERT_EQ(end, descriptions[i].mStartOffset) << "descriptions that do not tile the data";
        end += descriptions[i].mDataByteSize;
        ASSERT_LE(end, numberBytes);
        parsed.packets.emplace_back(bytes + descriptions[i].mStartOffset, bytes + end);
      }
      EXPECT_EQ(end, numberBytes);
    }
  } recorder;
  EXPECT_EQ(noErr, AudioFileStreamOpen(&recorder, Recorder::OnProperty, Recorder::OnPackets, 0, &recorder.stream));
  for (size_t from = 0; from <= bytes.size();) {
    const size_t size = std::min(nextChunkSize ? nextChunkSize() : bytes.size(), bytes.size() - from);
    const Bytes chunk(bytes.begin() + long(from), bytes.begin() + long(from + size));
    const OSStatus status = AudioFileStreamParseBytes(recorder.stream, uint32_t(size), chunk.data(), 0);
    EXPECT_TRUE(status != noErr || !recorder.parsed.failed) << "a failed stream took more bytes";
    recorder.parsed.failed |= status != noErr;
    from += std::max<size_t>(size, 1);
  }
  EXPECT_EQ(noErr, AudioFileStreamClose(recorder.stream));
  return recorder.parsed;
}

}  // namespace stream_parser_test
