#pragma once

namespace kestrune {

/// The events of an application. All calls on the main thread.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;

  /// Called once, when the loop runs.
  virtual void applicationDidFinishLaunching() = 0;

  /// Called once, before the process ends.
  virtual void applicationWillTerminate() = 0;
};

/// A regular application has a main window and an entry in the list of running programs; an accessory has
/// only its item in the status bar.
enum class ActivationPolicy { regular = 0, accessory = 1 };

/// The process as the desktop sees it, and its main loop.
class Application {
 public:
  virtual ~Application() = default;

  /// Main thread.
  virtual void setActivationPolicy(ActivationPolicy policy) = 0;

  /// Runs the main loop until `terminate`, and calls `delegate` at start and end. Returns the exit status.
  /// Called once, on the main thread.
  virtual int run(ApplicationDelegate& delegate) = 0;

  /// Ends the loop when the running callback has returned. Further calls do nothing. Main thread.
  virtual void terminate() = 0;
};

}  // namespace kestrune
