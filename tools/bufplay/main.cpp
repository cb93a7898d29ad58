// bufplay: plays sentences through AudioBufPlayer the way a speech client does, and shows what the
// player reports. Run with --help for the options.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Audio/Platform/OutputQueue/OutputDevices.h"
#include "Audio/Players/Impl_iOS/AudioBufPlayer.h"
#include "BadInput.h"
#include "ExitStatus.h"
#include "Diagnostics/qen_log.h"
#include "Options.h"
#include "Session.h"
#include "SignalWatch.h"
#include "TerminalLine.h"

namespace {

// The WAV recordings of the last sentence are complete once its queue has let go of them.
constexpr double kReleaseWaitSeconds = 5.0;

// Chooses the sound output for the whole process. A WAV path that cannot be written is found here,
// before anything plays, rather than as a failed queue in the middle of the session.
void SelectOutput(const Options& options) {
  const std::string wavPrefix = "wav:";
  if (options.output.rfind(wavPrefix, 0) == 0) {
    const std::string path = options.output.substr(wavPrefix.size());
    const size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    if (access(path.c_str(), F_OK) == 0 ? access(path.c_str(), W_OK) != 0 : access(folder.c_str(), W_OK | X_OK) != 0) {
      throw BadInput("cannot write " + path + ": " + std::strerror(errno));
    }
  }
  std::string output = options.device ? "device:" + *options.device : options.output;
  if (options.device && AudioOutputSelect(output) != noErr) {
    throw BadInput("no sound output is named '" + *options.device + "' (see bufplay --list-devices)");
  }
  // The platform would say so in a diagnostic line, which bufplay keeps off without -v.
  if (output == "default" && !PortAudioOutputExists()) {
    std::fprintf(stderr, "bufplay: no sound output on this machine; playing on the null output\n");
    output = "null";
  }
  if (AudioOutputSelect(output, options.speed) != noErr) {
    throw BadInput("--output " + options.output + " cannot be used");
  }
}

// Opens every input up to its format, so that what cannot be played is named before any sound.
// A signal that arrives while standard input is awaited ends bufplay as it would a session.
std::vector<std::unique_ptr<SentenceSource>> OpenSources(const Options& options, int signalFd) {
  std::vector<std::unique_ptr<SentenceSource>> sources;
  for (const std::string& path : options.files) {
    sources.push_back(std::make_unique<SentenceSource>(InputHints{.name = path, .format = options.format, .rawRate = options.rate},
                                                       options.chunkBytes, signalFd));
    if (options.verbosity > 0 && !sources.back()->conversion().empty()) {
      std::fprintf(stderr, "bufplay: %s: converting %s\n", sources.back()->name().c_str(),
                   sources.back()->conversion().c_str());
    }
  }
  return sources;
}

SessionViews OpenViews(const Options& options, const std::vector<std::unique_ptr<SentenceSource>>& sources) {
  SessionViews views;
  if (options.eventsPath) views.eventLog = std::make_unique<EventLog>(*options.eventsPath);
  if (options.timelinePath) {
    std::vector<std::string> names;
    for (const std::unique_ptr<SentenceSource>& source : sources) names.push_back(source->name());
    views.timeline = std::make_unique<Timeline>(*options.timelinePath, names, options.offset);
  }
  if (!options.quiet && isatty(STDOUT_FILENO) && options.eventsPath != "-") {
    views.display = std::make_unique<LiveDisplay>(stdout, sources.size());
  }
  views.keys = TerminalKeys::Open();
  return views;
}

}  // namespace

int main(int argc, char** argv) {
  SignalWatch signals;  // before any thread exists, so that every thread leaves the signals to it

  const ParsedCommandLine commandLine = ParseCommandLine(argc, argv);
  if (!commandLine.options) return commandLine.exitStatus;
  const Options& options = *commandLine.options;
  if (options.listDevices) {
    const std::vector<std::string> names = PortAudioOutputNames();
    if (names.empty()) std::fprintf(stderr, "bufplay: no sound output on this machine\n");
    for (const std::string& name : names) std::printf("%s\n", name.c_str());
    return names.empty() ? kExitBadInput : kExitFinished;
  }
  // Without -v the player's own lines stay off (its default): bufplay names every problem itself, in
  // one line, and the player logs the end of every sentence at ERROR.
  const int levels[] = {QEN_TTS::QEN_LOG_LEVEL_OFF, QEN_TTS::QEN_LOG_LEVEL_DEBUG, QEN_TTS::QEN_LOG_LEVEL_TRACE};
  QEN_TTS::set_log_level(levels[options.verbosity]);
  QEN_TTS::set_log_sink([](std::string_view line) { TerminalLine::instance().printAbove(stderr, line); });

  int exitStatus = kExitFinished;
  try {
    const std::vector<std::unique_ptr<SentenceSource>> sources = OpenSources(options, signals.fd());
    SessionViews views = OpenViews(options, sources);
    SelectOutput(options);
    std::shared_ptr<AudioBufPlayer> player =
        AudioBufPlayer::initWithAudioSessionCategory(options.category, 0, options.sessionManagement);
    if (!player) {
      std::fprintf(stderr, "bufplay: the player could not be created\n");
      return kExitPlayerError;
    }
    exitStatus = Session(options, sources, player, signals, std::move(views)).run();
  } catch (const BadInput& problem) {
    std::fprintf(stderr, "bufplay: %s\n", problem.what());
    return kExitBadInput;
  } catch (const OpeningInterrupted&) {
    return 128 + signals.take();
  }
  AudioQueueWaitForReleases(kReleaseWaitSeconds);
  return exitStatus;
}
