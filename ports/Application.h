#pragma once

namespace kestrune {

/// Is told of the start and the end of an application. All calls are made on the main thread.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;

  /// Called once, when the main loop starts.
  virtual void applicationDidFinishLaunching() = 0;

  /// Called once, after the main loop has ended and before the process ends.
  virtual void applicationWillTerminate() = 0;
};

/// A regular application has a main window and an entry in the list of running programs; an accessory has
/// only its item in the status bar.
enum class ActivationPolicy { regular = 0, accessory = 1 };

/// The process as the desktop sees it, and its main loop.
class Application {
 public:
  virtual ~Application() = default;

  /// Sets how the desktop shows the application. Main thread.
  virtual void setActivationPolicy(ActivationPolicy policy) = 0;

  /// Runs the main loop until `terminate` is called, and tells `delegate` of the start and the end. Returns
  /// the exit status of the process. Called once, on the main thread.
  virtual int run(ApplicationDelegate& delegate) = 0;

  /// Ends the main loop as soon as the running callback has returned. Further calls do nothing. Main thread.
  virtual void terminate() = 0;
};

}  // namespace kestrune
