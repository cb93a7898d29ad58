// The sound outputs a host program chooses; a real one is heard in SoundServer_test.cpp.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>

#include "platform/OutputQueueTestSupport.h"

namespace output_queue_test {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr OSStatus kInvalid = kAudioQueueErr_InvalidParameter;

TEST(OutputDevices, OnlyTheDocumentedOutputsCanBeSelected) {
  const struct {
    const char* output;
    double speed;
    double latency;
    OSStatus expected;
  } cases[] = {
      {"default", 1, 0, noErr},         {"null", 250, 0, noErr},
      {"wav:/tmp/x.wav", 4, 2, noErr},  {"manual:48000", 1, 0.05, noErr},
      {"", 1, 0, kInvalid},             {"nul", 1, 0, kInvalid},
      {"wav:", 1, 0, kInvalid},         {"manual:44k", 1, 0, kInvalid},
      {"manual", 2, 0, kInvalid},       {"device:no such output", 1, 0, kInvalid},
      {"null", 0, 0, kInvalid},         {"null", kNaN, 0, kInvalid},
      {"default", 1, 0.05, kInvalid},   {"null", 1, -0.01, kInvalid},
      {"null", 1, 2.01, kInvalid},      {"null", 1, kNaN, kInvalid},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(AudioOutputSelect(test.output, test.speed, test.latency), test.expected)
        << '"' << test.output << "\" at " << test.speed << " with latency " << test.latency;
  }
}

// The canonical 44-byte header of 16-bit PCM.
std::vector<uint8_t> WavHeader(uint32_t rate, uint16_t channels, uint32_t dataBytes) {
  std::vector<uint8_t> wav;
  const auto put = [&](uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) wav.push_back(uint8_t(value >> 8 * i));
  };
  const auto text = [&](const std::string& words) { wav.insert(wav.end(), words.begin(), words.end()); };
  text("RIFF");
  put(36 + dataBytes, 4);
  text("WAVEfmt ");
  put(16, 4);
  put(1, 2);  // PCM
  put(channels, 2);
  put(rate, 4);
  put(rate * channels * 2, 4);
  put(channels * 2, 2);
  put(16, 2);
  text("data");
  put(dataBytes, 4);
  return wav;
}

// Every header field, in stereo, which the end-to-end recordings do not reach. A start may fade in
// a buffer not yet rendered, and the output writes silence while the open queue has nothing to
// play: only the end of the audio must be exact.
TEST(OutputDevices, WavOutputRecordsTheCanonicalHeaderAndTheAudio) {
  const std::string path = ::testing::TempDir() + "/outputdevices-" + std::to_string(getpid()) + ".wav";
  const std::vector<int16_t> audio = Ramp(20000, -5000);
  ASSERT_EQ(AudioOutputSelect("wav:" + path, 4), noErr);
  {
    TestQueue queue(PcmFormat(22050, 2), "");
    queue.enqueue(audio);
    ASSERT_EQ(AudioQueueStart(queue.handle(), nullptr), noErr);
    ASSERT_EQ(AudioQueueStop(queue.handle(), false), noErr);
    ASSERT_TRUE(queue.log().waitUntilStopped());
  }
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::remove(path.c_str());
  ASSERT_GE(file.size(), 44u);
  const auto dataBytes = uint32_t(file.size() - 44);
  EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 44), WavHeader(22050, 2, dataBytes));
  std::vector<int16_t> heard(dataBytes / 2);
  std::memcpy(heard.data(), file.data() + 44, heard.size() * 2);
  const auto end = std::find_if(heard.rbegin(), heard.rend(), [](int16_t sample) { return sample != 0; }).base();
  ASSERT_GE(end - heard.begin(), 4000);
  EXPECT_EQ(std::vector<int16_t>(end - 4000, end), std::vector<int16_t>(audio.end() - 4000, audio.end()));
}

// On a machine without a sound output, such as the test machines, through the null output.
TEST(OutputDevices, DefaultOutputOpensAQueueOnAnyMachine) { TestQueue queue(PcmFormat(16000), "default"); }

}  // namespace
}  // namespace output_queue_test
