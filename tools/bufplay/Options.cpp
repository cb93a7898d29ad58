#include "Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <map>

#include "BadInput.h"
#include "ExitStatus.h"

using QEN_TTS::Audio::AudioPlayerAudioFormats;

namespace {

const std::map<std::string, AudioPlayerAudioFormats> kFormatNames{
    {"pcm8k", QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM8K},
    {"pcm16k", QEN_TTS::Audio::EAudioPlayerAudioFormat_PCM16K},
    {"mp3", QEN_TTS::Audio::EAudioPlayerAudioFormat_MP3},
};

constexpr const char* kDescription =
    "Streams each FILE, one sentence each, into an AudioBufPlayer the way a speech engine does:\n"
    "the first chunk with playData, the rest with appendAudioData, the next file once the\n"
    "sentence has finished. FILE - reads standard input as it arrives (a synthesizer's pipe).\n"
    "On a terminal: a live line per sentence and a summary; space pauses and resumes, + and -\n"
    "turn the volume up and down, m mutes, q stops.";

constexpr const char* kFooter =
    "Examples:\n"
    "  bufplay samples/hello.mp3 samples/hello.wav                 two sentences\n"
    "  espeak-ng --stdout \"Hello there\" | bufplay -               a synthesizer's pipe, as it is written\n"
    "  bufplay --chunk 1600 --pace 1 samples/hello.wav             a real-time producer, 50 ms chunks\n"
    "  bufplay --output wav:heard.wav --speed 8 samples/hello.mp3  record what would be heard\n"
    "\n"
    "Times (--at, and \"t\" in --events) are wall-clock seconds since the first playData.\n"
    "Exit status: 0 when every sentence finished (or you stopped playback), 1 when the player\n"
    "reported an error, 2 for bad arguments or input that cannot be read or played, 3 when the\n"
    "player refused audio that came after a sentence's run-out point (the producer fell behind;\n"
    "the seconds lost are named).\n";

// CLI11 prints its own "Run with --help" lines; one line naming the problem is what bufplay gives.
int ReportBadArgument(const std::string& message) {
  std::fprintf(stderr, "bufplay: %s (see bufplay --help)\n", message.c_str());
  return kExitBadInput;
}

}  // namespace

ParsedCommandLine ParseCommandLine(int argc, char** argv) {
  Options options;
  std::string format;
  std::vector<std::string> script;
  bool speedGiven = false;

  CLI::App app(kDescription, "bufplay");
  app.footer(kFooter);
  app.get_formatter()->column_width(30);
  app.add_option("FILE", options.files, "Audio of one sentence: .mp3, .wav (16-bit PCM), .pcm/.raw; - for standard input")
      ->type_name("");
  app.add_option("--format", format, "pcm8k|pcm16k|mp3 (default: from the file name, or the first bytes of -)")
      ->type_name("NAME")
      ->check(CLI::IsMember({"pcm8k", "pcm16k", "mp3"}).description(""));
  app.add_option_function<uint32_t>(
         "--rate", [&](uint32_t rate) { options.rate = rate; }, "Raw input is 16-bit mono PCM at HZ, converted for the player")
      ->type_name("HZ")
      ->check(CLI::Range(uint32_t(1000), uint32_t(768000)).description(""));
  app.add_option("--chunk", options.chunkBytes, "Bytes per chunk handed to the player")
      ->type_name("BYTES")
      ->capture_default_str()
      ->check(CLI::Range(size_t(1), size_t(1) << 24).description(""));
  app.add_option("--pace", options.pace, "Deliver audio X times faster than it plays; 0: as fast as the player takes it")
      ->type_name("X")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e6).description(""));
  app.add_option("--lead", options.lead, "Seconds of audio held before the first playData of a sentence; 0: none")
      ->type_name("SECONDS")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 3600.0).description(""));
  app.add_option("--output", options.output,
                 "default|null|wav:PATH: the sound card, nothing, or WAV recordings (PATH, then PATH-2... per sentence)")
      ->type_name("WHERE")
      ->capture_default_str();
  app.add_option_function<std::string>(
         "--device", [&](const std::string& name) { options.device = name; },
         "Play on the sound output of this name (see --list-devices)")
      ->type_name("NAME");
  app.add_flag("--list-devices", options.listDevices, "List the sound outputs by name, and exit");
  app.add_option_function<double>(
         "--speed",
         [&](double speed) {
           options.speed = speed;
           speedGiven = true;
         },
         "Clock factor of the null and wav outputs (default 1)")
      ->type_name("N")
      ->check(CLI::Range(0.001, 10000.0).description(""));
  app.add_option("--volume", options.volume, "Gain from 0 to 1 (1: the audio as received)")
      ->type_name("V")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1.0).description(""));
  app.add_option("--offset", options.offset, "Seconds added to every reported length and position")
      ->type_name("SECONDS");
  app.add_option_function<std::string>(
      "--category", [&](const std::string& category) { options.category = category; },
      "Audio session category the player applies")
      ->type_name("NAME");
  app.add_flag_function(
      "--no-session-management", [&](int64_t) { options.sessionManagement = false; },
      "The player leaves the audio session alone");
  app.add_option("--at", script, "SECONDS:ACTION, repeatable; ACTION: " + ScriptedActionNames())
      ->type_name("SECONDS:ACTION")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
      "--events", [&](const std::string& path) { options.eventsPath = path; },
      "Write every delegate call as a JSON line to PATH (- for standard output)")
      ->type_name("PATH|-");
  app.add_option_function<std::string>(
      "--timeline", [&](const std::string& path) { options.timelinePath = path; },
      "Draw the session (received and played seconds against time) as an SVG picture")
      ->type_name("PATH.svg");
  app.add_flag("-v", options.verbosity, "Diagnostic lines on standard error: -v DEBUG, -vv TRACE");
  app.add_flag("-q,--quiet", options.quiet, "No live line and no summary: only problems are printed");
  app.set_version_flag("--version", std::string("bufplay ") + BUFPLAY_VERSION);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return {std::nullopt, kExitFinished};
  } catch (const CLI::CallForVersion& version) {
    std::printf("%s\n", version.what());
    return {std::nullopt, kExitFinished};
  } catch (const CLI::ParseError& error) {
    return {std::nullopt, ReportBadArgument(error.what())};
  }

  if (options.files.empty() && !options.listDevices) return {std::nullopt, ReportBadArgument("FILE is required")};
  if (options.device && options.output != "default") {
    return {std::nullopt, ReportBadArgument("--device applies to --output default only")};
  }
  if (!format.empty()) options.format = kFormatNames.at(format);
  if (options.rate && format == "mp3") return {std::nullopt, ReportBadArgument("--rate declares raw PCM, not mp3")};
  if (std::count(options.files.begin(), options.files.end(), "-") > 1) {
    return {std::nullopt, ReportBadArgument("standard input (-) can be read once only")};
  }
  const std::string& output = options.output;
  if (output != "default" && output != "null" && (output.rfind("wav:", 0) != 0 || output.size() == 4)) {
    return {std::nullopt, ReportBadArgument("--output " + output + ": expected default, null or wav:PATH")};
  }
  if (speedGiven && output == "default") {
    return {std::nullopt, ReportBadArgument("--speed applies to --output null and wav:PATH only")};
  }
  try {
    for (const std::string& step : script) options.script.push_back(ParseScriptedAction(step));
  } catch (const BadInput& error) {
    return {std::nullopt, ReportBadArgument(error.what())};
  }
  std::stable_sort(options.script.begin(), options.script.end(),
                   [](const ScriptedAction& a, const ScriptedAction& b) { return a.at < b.at; });
  options.verbosity = std::min(options.verbosity, 2);
  return {std::move(options), 0};
}
