// Plan: the sound outputs a host program chooses.
// - Only the documented selections are taken.
// - "wav:PATH" records exactly what is heard, as a valid WAV file at the stream's rate and channel
//   count, one file per queue with a counter in the name; the clocks run at the chosen speed.
// - "default" falls back to the null output, with one line on standard error, on a machine without
//   a sound output (skipped where there is one). The null output itself runs the other tests.
// Not here: a real sound output (SoundServer_test.cpp).
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <mutex>

#include "platform/OutputQueueTestSupport.h"
#include "corpus/Corpus.h"
#include "Diagnostics/qen_log_control.h"

namespace output_queue_test {
namespace {

struct WavFile {
  uint16_t format = 0;
  uint16_t channels = 0;
  uint32_t rate = 0;
  uint16_t bits = 0;
  std::vector<uint8_t> data;
  bool valid = false;
};

WavFile ReadWav(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto u32 = [&](size_t at) { return uint32_t(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | bytes[at + 3] << 24); };
  const auto u16 = [&](size_t at) { return uint16_t(bytes[at] | bytes[at + 1] << 8); };
  WavFile wav;
  if (bytes.size() < 44 || std::string(bytes.begin(), bytes.begin() + 4) != "RIFF" ||
      std::string(bytes.begin() + 8, bytes.begin() + 16) != "WAVEfmt " ||
      std::string(bytes.begin() + 36, bytes.begin() + 40) != "data" || u32(4) != bytes.size() - 8 ||
      u32(40) != bytes.size() - 44) {
    return wav;
  }
  wav = {u16(20), u16(22), u32(24), u16(34), std::vector<uint8_t>(bytes.begin() + 44, bytes.end()), true};
  wav.valid = u32(16) == 16 && u32(28) == wav.rate * wav.channels * 2 && u16(32) == wav.channels * 2;
  return wav;
}

void IgnoreBuffer(void*, AudioQueueRef, AudioQueueBufferRef) {}

std::string TempPath(const std::string& name) {
  return ::testing::TempDir() + "/outputdevices-" + std::to_string(getpid()) + "-" + name;
}

TEST(OutputDevices, OnlyTheDocumentedOutputsCanBeSelected) {
  struct Case {
    const char* output;
    double speed;
    OSStatus expected;
    double latency = 0;
  };
  const std::vector<Case> cases = {
      {"default", 1, noErr},          {"null", 1, noErr},           {"null", 250, noErr},
      {"wav:/tmp/x.wav", 4, noErr},   {"manual", 1, noErr},         {"manual:48000", 1, noErr},
      {"", 1, kAudioQueueErr_InvalidParameter},          {"nul", 1, kAudioQueueErr_InvalidParameter},
      {"wav:", 1, kAudioQueueErr_InvalidParameter},      {"manual:", 1, kAudioQueueErr_InvalidParameter},
      {"manual:44k", 1, kAudioQueueErr_InvalidParameter}, {"manual:100", 1, kAudioQueueErr_InvalidParameter},
      {"manual", 2, kAudioQueueErr_InvalidParameter},    {"default", 2, kAudioQueueErr_InvalidParameter},
      {"device:no such output", 1, kAudioQueueErr_InvalidParameter},
      {"null", 0, kAudioQueueErr_InvalidParameter},      {"null", -1, kAudioQueueErr_InvalidParameter},
      {"null", std::numeric_limits<double>::infinity(), kAudioQueueErr_InvalidParameter},
      {"null", std::numeric_limits<double>::quiet_NaN(), kAudioQueueErr_InvalidParameter},
      {"manual", 1, noErr, 0.05},     {"wav:/tmp/x.wav", 4, noErr, 2},
      {"default", 1, kAudioQueueErr_InvalidParameter, 0.05}, {"null", 1, kAudioQueueErr_InvalidParameter, -0.01},
      {"null", 1, kAudioQueueErr_InvalidParameter, 2.01},
      {"null", 1, kAudioQueueErr_InvalidParameter, std::numeric_limits<double>::quiet_NaN()},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(AudioOutputSelect(test.output, test.speed, test.latency), test.expected)
        << '"' << test.output << "\" at " << test.speed << " with latency " << test.latency;
  }
}

TEST(OutputDevices, WavOutputRecordsExactlyWhatIsHeard) {
  struct Case {
    AudioStreamBasicDescription format;
    std::vector<int16_t> audio;
  };
  const std::vector<Case> cases = {{PcmFormat(8000), corpus::ReadCorpusSamples("hello_s16le_8000.pcm")},
                                   {PcmFormat(22050, 2), Ramp(20000)}};
  for (const Case& test : cases) {
    const std::string path = TempPath("record.wav");
    {
      TestQueue queue(test.format, "wav:" + path, 4);
      for (size_t at = 0; at < test.audio.size(); at += 2560) {
        const size_t end = std::min(test.audio.size(), at + 2560);
        queue.enqueue(std::vector<int16_t>(test.audio.begin() + long(at), test.audio.begin() + long(end)));
      }
      ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
      ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
      ASSERT_TRUE(queue.log().waitUntilStopped());
      EXPECT_EQ(queue.counters().underruns, 0u);
    }
    const WavFile wav = ReadWav(path);
    ASSERT_TRUE(wav.valid);
    EXPECT_EQ(wav.format, 1);
    EXPECT_EQ(wav.channels, test.format.mChannelsPerFrame);
    EXPECT_EQ(wav.rate, test.format.mSampleRate);
    EXPECT_EQ(wav.bits, 16);
    EXPECT_EQ(wav.data, BytesOf(test.audio));
    std::remove(path.c_str());
  }
}

TEST(OutputDevices, EachQueueHasAWavFileOfItsOwn) {
  const std::string base = TempPath("numbered");
  const std::vector<std::string> names = {base + ".wav", base + "-2.wav", base + "-3.wav"};
  ASSERT_EQ(AudioOutputSelect("wav:" + names[0]), noErr);
  std::vector<AudioQueueRef> queues;
  for (const double rate : {8000.0, 16000.0, 44100.0}) {
    const AudioStreamBasicDescription format = PcmFormat(rate);
    AudioQueueRef queue = nullptr;
    ASSERT_EQ(AudioQueueNewOutput(&format, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue), noErr);
    queues.push_back(queue);
  }
  for (size_t i = 0; i < names.size(); ++i) {
    const WavFile wav = ReadWav(names[i]);
    EXPECT_TRUE(wav.valid) << names[i];
    EXPECT_EQ(wav.rate, std::vector<uint32_t>({8000, 16000, 44100})[i]) << names[i];
    EXPECT_TRUE(wav.data.empty());
  }
  ASSERT_EQ(AudioOutputSelect("wav:" + names[0]), noErr);  // counts from the first name again
  AudioQueueRef again = nullptr;
  const AudioStreamBasicDescription format = PcmFormat(12000);
  ASSERT_EQ(AudioQueueNewOutput(&format, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &again), noErr);
  EXPECT_EQ(ReadWav(names[0]).rate, 12000u);
  queues.push_back(again);
  for (AudioQueueRef queue : queues) {
    AudioQueueDispose(queue, true);
  }
  EXPECT_TRUE(AudioQueueWaitForReleases(20));
  for (const std::string& name : names) {
    std::remove(name.c_str());
  }
}

TEST(OutputDevices, AWavFileThatCannotBeWrittenFailsTheQueue) {
  ASSERT_EQ(AudioOutputSelect("wav:/nonexistent-directory/x.wav"), noErr);
  const AudioStreamBasicDescription format = PcmFormat(16000);
  AudioQueueRef queue = nullptr;
  std::string logged;  // written on this thread only: the queue fails to open before it has one
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_ERROR);
  QEN_TTS::set_log_sink([&logged](std::string_view line) { logged += line; });
  EXPECT_EQ(AudioQueueNewOutput(&format, IgnoreBuffer, nullptr, nullptr, nullptr, 0, &queue),
            kAudioQueueErr_DeviceFailed);
  QEN_TTS::set_log_sink(nullptr);
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_OFF);
  EXPECT_NE(logged.find("/nonexistent-directory/x.wav"), std::string::npos) << logged;
}

TEST(OutputDevices, DefaultFallsBackToTheNullOutputWithOneLine) {
  std::mutex mutex;
  std::string printed;  // guarded by mutex: the queues' threads may log too
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_ERROR);
  QEN_TTS::set_log_sink([&](std::string_view line) {
    std::lock_guard<std::mutex> lock(mutex);
    printed += line;
  });
  {
    TestQueue first(PcmFormat(16000), "default");
    TestQueue second(PcmFormat(8000), "default");
  }
  QEN_TTS::set_log_sink(nullptr);
  QEN_TTS::set_log_level(QEN_TTS::QEN_LOG_LEVEL_OFF);
  std::lock_guard<std::mutex> lock(mutex);
  const auto lines = std::count(printed.begin(), printed.end(), '\n');
  if (lines == 0) {
    GTEST_SKIP() << "this machine has a sound output, or the fallback was announced earlier in the process";
  }
  EXPECT_EQ(lines, 1) << printed;
  EXPECT_NE(printed.find("null output"), std::string::npos) << printed;
}

}  // namespace
}  // namespace output_queue_test
