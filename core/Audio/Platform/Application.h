// The application object: remote-control registration and the foreground/background state.
#pragma once

class Application {
 public:
  static Application& sharedApplication();

  // Called by the session activation from the main queue.
  void beginReceivingRemoteControlEvents();
  void endReceivingRemoteControlEvents();
  bool isReceivingRemoteControlEvents() const;

  // Host side. While in the background, every output queue start is refused with "!pla".
  void setInBackground(bool inBackground);
  bool isInBackground() const;

  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

 private:
  Application() = default;
};
