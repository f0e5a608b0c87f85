#pragma once

namespace kestrune {

/// What the application tells its controller. All calls on the main thread.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;

  /// Once, when the loop runs.
  virtual void applicationDidFinishLaunching() = 0;

  /// Once, when the process is about to end; the process ends after this returns.
  virtual void applicationWillTerminate() = 0;
};

/// Regular applications have a main window and a place among the running programs; an accessory lives in the
/// status bar alone.
enum class ActivationPolicy { regular = 0, accessory = 1 };

/// The process as the desktop sees it, and its main loop. Behind a port so that a test can be the desktop.
class Application {
 public:
  virtual ~Application() = default;

  /// Main thread.
  virtual void setActivationPolicy(ActivationPolicy policy) = 0;

  /// Runs the main loop until `terminate`, with the delegate told of start and end. Returns the exit status.
  /// Called once, on the main thread.
  virtual int run(ApplicationDelegate& delegate) = 0;

  /// Ends the loop once the work under way on the main thread is done. Asking again changes nothing. Main
  /// thread.
  virtual void terminate() = 0;
};

}  // namespace kestrune
