#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

#include "adapters/bus/SessionBus.h"
#include "adapters/tray/StatusNotifierItem.h"
#include "fuzz/Fuzz.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/VirtualTime.h"

// Fuzzes the D-Bus calls of tray hosts (panels) to the tray item and its menu, over a direct connection
// without a bus. The input is a sequence of steps; the first byte of a step chooses its kind.

namespace {

using namespace kestrune;
using fuzz::Input;
using fuzz::require;

struct Method {
  const char* path;
  const char* interface;
  const char* member;
  std::string_view types;
};

constexpr auto item = StatusNotifierItem::objectPath;
constexpr auto menu = DBusMenu::objectPath;
constexpr auto itemInterface = "org.kde.StatusNotifierItem";
constexpr auto menuInterface = "com.canonical.dbusmenu";
constexpr auto properties = "org.freedesktop.DBus.Properties";

constexpr std::array methods{
    Method{menu, menuInterface, "GetLayout", "iias"},
    Method{menu, menuInterface, "GetGroupProperties", "aias"},
    Method{menu, menuInterface, "GetProperty", "is"},
    Method{menu, menuInterface, "Event", "isvu"},
    Method{menu, menuInterface, "EventGroup", "a(isvu)"},
    Method{menu, menuInterface, "AboutToShow", "i"},
    Method{menu, menuInterface, "AboutToShowGroup", "ai"},
    Method{item, itemInterface, "Activate", "ii"},
    Method{item, itemInterface, "Scroll", "is"},
    Method{item, itemInterface, "ProvideXdgActivationToken", "s"},
    Method{item, properties, "Get", "ss"},
    Method{menu, properties, "GetAll", "s"},
    Method{item, properties, "GetAll", "s"},
    Method{menu, properties, "Set", "ssv"},
};

/// Returns how many characters the first type in a D-Bus signature takes.
std::size_t firstType(std::string_view types) {
  if (types.front() == 'a') return 1 + firstType(types.substr(1));
  return types.front() == '(' ? types.find(')') + 1 : 1;
}

int append(sd_bus_message* message, std::string_view types, Input& input);

/// Appends an array, a variant or a structure to `message`. `contents` is the signature of an array element,
/// of the value in the variant, or of all members of the structure. `count` is the number of array elements;
/// it is 1 for a variant or a structure.
int appendContainer(sd_bus_message* message, char kind, std::string_view contents, int count, Input& input) {
  int result = sd_bus_message_open_container(message, kind, std::string(contents).c_str());
  for (int i = 0; i < count && result >= 0; ++i) result = append(message, contents, input);
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendOne(sd_bus_message* message, std::string_view type, Input& input) {
  static constexpr std::array<std::string_view, 6> inVariants{"i", "s", "u", "as", "(is)", "v"};
  const std::string_view inside = type.substr(1);
  switch (type.front()) {
    case 'i':
    case 'u':
      return sd_bus_message_append(message, std::string(type).c_str(), input.word());
    case 's':
      return sd_bus_message_append(message, "s", std::string(input.text()).c_str());
    case 'v':
      return appendContainer(message, 'v', inVariants.at(input.byte() % inVariants.size()), 1, input);
    case 'a':
      return appendContainer(message, 'a', inside, input.byte() % 8, input);
    default:
      return appendContainer(message, 'r', inside.substr(0, inside.size() - 1), 1, input);
  }
}

/// Appends to `message` one value for each type in the signature `types`. Makes the values from `input`.
int append(sd_bus_message* message, std::string_view types, Input& input) {
  int result = 0;
  while (result >= 0 && !types.empty()) {
    const std::size_t length = firstType(types);
    result = appendOne(message, types.substr(0, length), input);
    types.remove_prefix(length);
  }
  return result;
}

/// Aborts when the action of a disabled menu item is performed. Only enabled items have the action "allowed".
struct Target final : ActionTarget {
  void performAction(std::string_view action) override {
    require(action == "allowed", "what is disabled does nothing");
  }
};

/// Returns an event loop that never runs. `Desk::settle` processes the D-Bus messages instead.
EventLoop& idleLoop() {
  // The constructor of EventLoop blocks SIGTERM, SIGINT and other signals. Restore the signal mask, because a
  // blocked signal cannot end the fuzzer.
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  static EventLoop loop;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return loop;
}

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;

Bus makeBus(int descriptor, bool isServer) {
  sd_bus* bus = nullptr;
  bool done = sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, descriptor, descriptor) >= 0;
  if (isServer) done = done && sd_bus_set_server(bus, 1, sd_id128_t{{1}}) >= 0;
  done = done && sd_bus_set_anonymous(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
  require(done, "a connection can be made");
  return Bus(bus);
}

/// A tray item and a tray host, at the two ends of a connection.
class Desk {
 public:
  Desk() {
    std::array<int, 2> ends{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
            "there are sockets");
    program = makeBus(ends[0], true);
    host = makeBus(ends[1], false);
    connection.use(sd_bus_ref(program.get()));
    tray.addToStatusBar(StatusItem::squareLength);
    settle();
  }

  void step(Input& input) {
    const std::uint8_t choice = input.byte();
    if (choice < 0xA0) {
      call(methods.at(choice % methods.size()), methods.at(choice % methods.size()).types, input);
    } else if (choice < 0xB0) {
      call(methods.at(choice % methods.size()), methods.at(input.byte() % methods.size()).types, input);
    } else if (choice < 0xC0) {
      tellOfOwner(input);
    } else if (choice < 0xE0) {
      setMenu(input);
    } else {
      const std::string text(input.text());
      tray.setButton({.toolTip = text, .accessibilityLabel = text});
    }
    settle();
  }

 private:
  void call(const Method& method, std::string_view types, Input& input) {
    sd_bus_message* message = nullptr;
    require(sd_bus_message_new_method_call(host.get(), &message, nullptr, method.path, method.interface,
                                           method.member) >= 0,
            "a call can be made");
    const BusMessage owned(message);
    // Skip the call if D-Bus cannot carry its arguments, for example text that is not UTF-8.
    if (append(message, types, input) < 0) return;
    answered = false;
    sd_bus_slot* slot = nullptr;
    require(sd_bus_call_async(host.get(), &slot, message, &answer, this, 0) >= 0, "a call can be sent");
    const BusSlot pending(slot);
    settle();
    require(answered, "every call is answered");
  }

  static int answer(sd_bus_message* reply, void* self, sd_bus_error*) {
    static_cast<Desk*>(self)->answered = true;
    const sd_bus_error* const error = sd_bus_message_get_error(reply);
    bool isExpected = error == nullptr;
    for (const char* const name :
         {SD_BUS_ERROR_INVALID_ARGS, SD_BUS_ERROR_UNKNOWN_INTERFACE, SD_BUS_ERROR_UNKNOWN_PROPERTY,
          SD_BUS_ERROR_PROPERTY_READ_ONLY, SD_BUS_ERROR_NOT_SUPPORTED}) {
      isExpected = isExpected || sd_bus_error_has_name(error, name) != 0;
    }
    require(isExpected, "a call that is refused is the caller's fault");
    // If a value cannot be encoded in the reply, sd-bus replies with the error EINVAL instead.
    require(error == nullptr || std::strcmp(error->message, std::strerror(EINVAL)) != 0,
            "an answer can be said on a bus");
    return 0;
  }

  void tellOfOwner(Input& input) {
    sd_bus_message* message = nullptr;
    require(sd_bus_message_new_signal(host.get(), &message, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                      "NameOwnerChanged") >= 0,
            "a signal can be made");
    const BusMessage owned(message);
    static constexpr std::array names{"org.kde.StatusNotifierWatcher", "org.gnome.Shell",
                                      "org.kde.plasmashell", "org.lxqt.session",
                                      "org.ayatana.indicator.application"};
    const std::uint8_t choice = input.byte();
    const bool isWhole = choice % 2 == 0;
    if (sd_bus_message_set_sender(message, "org.freedesktop.DBus") < 0 ||
        sd_bus_message_append(message, "s", names.at(choice / 2 % names.size())) < 0 ||
        append(message, isWhole ? "ss" : "i", input) < 0)
      return;
    require(sd_bus_send(host.get(), message, nullptr) >= 0, "a signal can be sent");
  }

  void setMenu(Input& input) {
    // The client uses only these shortcut keys, so choose one of them. A title can be any text.
    static constexpr std::array keys{"", "q", "R", ","};
    Menu shown;
    for (int id = 1 + input.byte() % 2, last = id + input.byte() % 8; id < last; ++id) {
      const std::uint8_t look = input.byte();
      const bool enabled = look % 2 == 0;
      shown.items.push_back({.id = id,
                             .isSeparator = look >= 0xE0,
                             .title = std::string(input.text()),
                             .action = enabled ? "allowed" : "forbidden",
                             .keyEquivalent = keys.at(look / 2 % keys.size()),
                             .enabled = enabled,
                             .target = target});
      if (look >= 0x80) shown.items.back().checked = look >= 0xC0;
    }
    tray.setMenu(std::move(shown));
  }

  /// Processes messages at both ends until none is left, then runs the jobs of the main queue.
  void settle() {
    for (bool goesOn = true; goesOn;) {
      goesOn = false;
      for (sd_bus* const bus : {program.get(), host.get()}) {
        const int result = sd_bus_process(bus, nullptr);
        require(result >= 0 && sd_bus_is_open(bus) > 0, "the line stays");
        goesOn = goesOn || result > 0;
      }
    }
    loop.runMain();
  }

  testing::CallLog log;
  testing::VirtualClock clock;
  testing::FakeLoop loop{clock, log};
  std::shared_ptr<Target> target = std::make_shared<Target>();
  Bus program;
  Bus host;
  SessionBus connection{idleLoop()};
  testing::FakeMainBundle bundle;
  StatusNotifierItem tray{{connection, loop.mainQueue(), bundle, [] {}}};
  bool answered = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Desk desk;
  for (int steps = 0; steps < 32 && !input.empty(); ++steps) desk.step(input);
  return 0;
}
