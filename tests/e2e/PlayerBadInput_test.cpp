// Input to the real player on the real platform, one row per kind, bad input included: what
// playData and appendAudioData return, which reports end the sentence (each once), and what each
// output queue recorded. PCM is heard sample for sample however the producer cuts it. The parser's
// own view of the corpus's damaged files is StreamParserCorpus_test's.
#include <gmock/gmock.h>

#include <future>
#include <random>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "e2e/WavRecording.h"
#include "unit/RecordingDelegate.h"

namespace bufplay_test {
namespace {

using Format = QEN_TTS::Audio::AudioPlayerAudioFormats;
constexpr Format kPCM8K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K;
constexpr Format kPCM16K = QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K;
constexpr Format kMP3 = QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3;

struct Chunk {
  std::vector<uint8_t> bytes;
  Format format;
};

struct SentenceOutcome {
  std::vector<AudioBufPlayerError> results;  // one per chunk
  std::vector<DelegateEvent> events;         // every report, all of them delivered
  std::vector<Recording> recordings;         // one per output queue opened, in order
};

// The first chunk by playData, the rest by appendAudioData, on one producer thread, into the WAV
// output. `endReport` ends the sentence; with none, the player is stopped once everything was fed.
SentenceOutcome PlaySentence(const std::vector<Chunk>& chunks, const std::string& endReport, double speed) {
  ScratchFolder scratch;
  SentenceOutcome outcome;
  EXPECT_EQ(AudioOutputSelect("wav:" + scratch.file("out.wav"), speed), noErr);
  // A notification holds the delegate: its last reference goes with the last report delivered.
  auto last = std::make_shared<std::promise<std::vector<DelegateEvent>>>();
  std::future<std::vector<DelegateEvent>> delivered = last->get_future();
  std::shared_ptr<RecordingDelegate> delegate(new RecordingDelegate, [last](RecordingDelegate* recording) {
    last->set_value(recording->events());
    delete recording;
  });
  std::shared_ptr<AudioBufPlayer> player = AudioBufPlayer::initWithAudioSessionCategory(std::nullopt, 0, false);
  player->setVolume(1.0f);  // a new player plays at half volume
  player->start();
  auto producer = std::async(std::launch::async, [&] {
    std::vector<AudioBufPlayerError> results;
    for (const Chunk& chunk : chunks) {
      results.push_back(results.empty() ? player->playData(chunk.bytes, chunk.format, delegate, 0.0)
                                        : player->appendAudioData(chunk.bytes, chunk.format, delegate, 0.0));
    }
    return results;
  });
  if (producer.wait_for(RecordingDelegate::kWaitTimeout) != std::future_status::ready) {
    ADD_FAILURE() << "the producer is still blocked";
    player->stop();  // lets it return
  }
  outcome.results = producer.get();
  if (!endReport.empty()) {
    EXPECT_TRUE(delegate->waitFor(endReport));
  }
  player->stop();
  player.reset();
  delegate.reset();
  if (delivered.wait_for(RecordingDelegate::kWaitTimeout) == std::future_status::ready) {
    outcome.events = delivered.get();
  } else {
    ADD_FAILURE() << "a notification still holds the delegate";
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(30.0)) << "a queue kept its recording open";
  outcome.recordings = ReadRecordings(scratch);
  return outcome;
}

constexpr AudioBufPlayerError OK = AudioBufPlayerError_OK;
constexpr AudioBufPlayerError kSwitch = AudioBufPlayerError_SWITCH_FORMAT;
constexpr AudioBufPlayerError kUnparsable = AudioBufPlayerError_FAILED_PARSE_STREAM;
constexpr size_t kMp3FrameSamples = 576;  // MPEG-2 and 2.5

struct Heard {
  uint32_t rate;
  size_t samples;    // MP3: at least these; more only as silence where the queue ran dry
  bool cut = false;  // the queue was let go early: fewer were heard
};

struct Row {
  const char* name;
  std::vector<Chunk> chunks;
  std::vector<AudioBufPlayerError> results;
  std::string endReport;              // empty: none ever ends the sentence
  AudioBufPlayerError reported = OK;  // of the one PlayerError report, when there is one
  std::vector<Heard> heard = {};      // per output queue
  std::vector<uint8_t> pcmHeard = {};
  // Rows fed in several calls play at twice real time, so that the first buffer plays out long
  // after the producer's next calls, even under a sanitizer, and none meets the run-out point.
  double speed = 2.0;
};

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t from, size_t to) {
  return std::vector<uint8_t>(bytes.begin() + std::ptrdiff_t(from), bytes.begin() + std::ptrdiff_t(to));
}

std::vector<uint8_t> Repeated(const std::vector<uint8_t>& sentence, size_t count) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = sentence[i % sentence.size()];
  return bytes;
}

// A first chunk of half a second, as a speech engine's is: a shorter one could play out before the
// next arrives. Then mostly a few kilobytes, one chunk in four a handful of bytes.
std::vector<Chunk> RandomChunks(const std::vector<uint8_t>& sentence, Format format, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<Chunk> chunks;
  for (size_t at = 0; at < sentence.size();) {
    const size_t wanted = at == 0 ? 16000 : random() % 4 ? 1 + random() % 8000 : 1 + random() % 9;
    const size_t size = std::min(sentence.size() - at, wanted);
    chunks.push_back({Slice(sentence, at, at + size), format});
    at += size;
  }
  return chunks;
}

std::vector<Row> Rows() {
  const auto hello16k = ReadCorpusFile("hello_s16le_16000.pcm");
  const auto hello8k = ReadCorpusFile("hello_s16le_8000.pcm");
  const auto garbage = ReadCorpusFile("bad_random_bytes_16k.mp3");
  const auto fox16k = ReadCorpusFile("fox_m2_16k_cbr32_lame.mp3");           // 92 frames, no Info frame
  const auto concat = ReadCorpusFile("concat_hello_16k_then_hold_24k.mp3");  // 24 kHz from byte 6480
  const auto tenMegabytes = Repeated(hello8k, 10 << 20);
  // A 16-bit stream that ends on an odd byte cannot play that half sample: the rest is heard.
  std::vector<uint8_t> oddEnd = hello16k;
  oddEnd.push_back(0x5A);
  const auto oddEndChunks = RandomChunks(oddEnd, kPCM16K, 2);
  // The smallest Layer III frames: MPEG-2, 8 kbit/s, 24 kHz, mono, 24 bytes of silence each.
  std::vector<uint8_t> tinyFrame{0xFF, 0xF3, 0x14, 0xC0};
  tinyFrame.resize(24);
  std::vector<uint8_t> rateChange = Repeated(fox16k, 9 * fox16k.size());
  rateChange.insert(rateChange.end(), concat.begin() + 6480, concat.end());
  return {
      {"OddAndOneByteChunksEndingOnAnOddByte", oddEndChunks, std::vector(oddEndChunks.size(), OK), "PlaybackFinished",
       OK, {{16000, hello16k.size() / 2}}, hello16k},
      {"EmptyChunksAndFormatSwitchesMidSentence",
       {{Slice(hello16k, 0, 10000), kPCM16K}, {{}, kPCM16K}, {hello8k, kPCM8K},
        {ReadCorpusFile("hello_m2_16k_cbr32_lame_id3v1.mp3"), kMP3}, {Slice(hello16k, 10000, hello16k.size()), kPCM16K},
        {{}, kMP3}},
       {OK, OK, kSwitch, kSwitch, OK, kSwitch}, "PlaybackFinished", OK, {{16000, hello16k.size() / 2}}, hello16k},
      {"TenMegabyteChunk", {{tenMegabytes, kPCM8K}}, {OK}, "PlaybackFinished", OK, {{8000, tenMegabytes.size() / 2}},
       tenMegabytes, 400.0},
      {"TenMegabytesOfGarbageAsMp3", {{Repeated(garbage, 10 << 20), kMP3}}, {kUnparsable}, "PlayerError", kUnparsable},
      // The append that crosses 4 KiB fails the stream and ends the sentence: the next starts anew.
      {"GarbageAsMp3InSmallChunks",
       {{Slice(garbage, 0, 2000), kMP3}, {Slice(garbage, 2000, 4000), kMP3}, {Slice(garbage, 4000, 6000), kMP3},
        {hello16k, kPCM16K}},
       {OK, OK, kUnparsable, OK}, "PlaybackFinished", kUnparsable, {{16000, hello16k.size() / 2}}, hello16k},
      {"GarbageUnder4KiBAsMp3", {{Slice(garbage, 0, 4000), kMP3}}, {OK}, ""},
      {"Id3TagLongerThanTheStream", {{ReadCorpusFile("bad_id3_size_beyond_eof.mp3"), kMP3}}, {OK}, ""},
      {"JunkBetweenFrames", {{ReadCorpusFile("bad_garbage1k_inserted.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 92 * kMp3FrameSamples}}, {}, 20.0},
      {"HugeId3Tag", {{ReadCorpusFile("fox_m2_16k_cbr48_lame_bigid3v23_apic.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 92 * kMp3FrameSamples}}, {}, 20.0},
      {"TruncatedFrame", {{ReadCorpusFile("bad_truncated_midframe.mp3"), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 40 * kMp3FrameSamples}}, {}, 20.0},
      // More 16 kHz audio than the 20 buffers hold, so that every buffer is in flight when the rate
      // changes: what the first queue still held is cut. The Info frame that opens the 24 kHz part
      // plays nothing.
      {"SampleRateChangeMidStream",
       {{rateChange, kMP3}}, {OK}, "PlaybackFinished", OK,
       {{16000, 9 * 92 * kMp3FrameSamples, true}, {24000, 99 * kMp3FrameSamples}}, {}, 20.0},
      {"MoreThan512TinyPacketsInOneChunk", {{Repeated(tinyFrame, 24 * 600), kMP3}}, {OK}, "PlaybackFinished", OK,
       {{24000, 600 * kMp3FrameSamples}}, {}, 20.0},
  };
}

TEST(PlayerBadInput, EachKindOfBadInputEndsAsTheTableSays) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.name);
    const SentenceOutcome outcome = PlaySentence(row.chunks, row.endReport, row.speed);
    EXPECT_EQ(outcome.results, row.results);
    std::vector<std::string> ends;
    for (const DelegateEvent& event : outcome.events) {
      if (event.name == "PlaybackFinished" || event.name == "PlayerError") ends.push_back(event.name);
      if (event.name == "PlayerError") {
        EXPECT_EQ(event.error, row.reported) << event.description;
      }
    }
    std::vector<std::string> expectedEnds;
    if (!row.endReport.empty()) expectedEnds.push_back(row.endReport);
    if (row.reported != OK && row.endReport != "PlayerError") expectedEnds.push_back("PlayerError");
    EXPECT_THAT(ends, testing::UnorderedElementsAreArray(expectedEnds));

    ASSERT_EQ(outcome.recordings.size(), row.heard.size());
    for (size_t i = 0; i < row.heard.size(); ++i) {
      const std::vector<int16_t>& samples = outcome.recordings[i].samples;
      EXPECT_EQ(outcome.recordings[i].rate, row.heard[i].rate);
      if (!row.pcmHeard.empty()) {
        EXPECT_TRUE(FedWithOnlySilenceAdded(Samples(row.pcmHeard), samples));
      } else if (row.heard[i].cut) {
        EXPECT_LT(samples.size(), row.heard[i].samples);
      } else {
        EXPECT_GE(samples.size(), row.heard[i].samples);
      }
    }
  }
}

}  // namespace
}  // namespace bufplay_test
