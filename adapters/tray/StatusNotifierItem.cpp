#include "adapters/tray/StatusNotifierItem.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "adapters/system/StandardError.h"
#include "text/Text.h"

namespace kestrune {

namespace {

constexpr auto itemInterface = "org.kde.StatusNotifierItem";

/// One host takes a tooltip for markup and drops all of it when that is malformed; the full-width forms read
/// the same.
std::string withoutMarkup(const std::string& text) {
  return replacingAll(replacingAll(displayRow(text), "<", "＜"), "&", "＆");
}

bool isGrey(const Bitmap& bitmap) {
  const auto& rgba = bitmap.rgba;
  for (std::size_t at = 0; at + 3 < rgba.size(); at += 4) {
    if (rgba[at] != rgba[at + 1] || rgba[at] != rgba[at + 2]) return false;
  }
  return true;
}

bool sameImage(const ImageRef& a, const ImageRef& b) {
  return a == b || (a && b && *a == *b);
}

}  // namespace

const sd_bus_vtable StatusNotifierItem::interface[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Category", "s", &property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Id", "s", &property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Title", "s", &property, 0, 0),
    SD_BUS_PROPERTY("Status", "s", &property, 0, 0),
    SD_BUS_PROPERTY("WindowId", "i", &property, 0, 0),
    SD_BUS_PROPERTY("IconThemePath", "s", &property, 0, 0),
    SD_BUS_PROPERTY("IconName", "s", &property, 0, 0),
    SD_BUS_PROPERTY("IconPixmap", "a(iiay)", &property, 0, 0),
    SD_BUS_PROPERTY("IconAccessibleDesc", "s", &property, 0, 0),
    SD_BUS_PROPERTY("OverlayIconName", "s", &property, 0, 0),
    SD_BUS_PROPERTY("OverlayIconPixmap", "a(iiay)", &property, 0, 0),
    SD_BUS_PROPERTY("AttentionIconName", "s", &property, 0, 0),
    SD_BUS_PROPERTY("AttentionIconPixmap", "a(iiay)", &property, 0, 0),
    SD_BUS_PROPERTY("AttentionAccessibleDesc", "s", &property, 0, 0),
    SD_BUS_PROPERTY("AttentionMovieName", "s", &property, 0, 0),
    SD_BUS_PROPERTY("ToolTip", "(sa(iiay)ss)", &property, 0, 0),
    SD_BUS_PROPERTY("ItemIsMenu", "b", &property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("Menu", "o", &property, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_METHOD("Activate", "ii", "", &activate, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SecondaryActivate", "ii", "", &openWindow, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ContextMenu", "ii", "", &openWindow, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Scroll", "is", "", &ignore, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ProvideXdgActivationToken", "s", "", &provideToken, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("NewTitle", "", 0),
    SD_BUS_SIGNAL("NewIcon", "", 0),
    SD_BUS_SIGNAL("NewAttentionIcon", "", 0),
    SD_BUS_SIGNAL("NewOverlayIcon", "", 0),
    SD_BUS_SIGNAL("NewMenu", "", 0),
    SD_BUS_SIGNAL("NewToolTip", "", 0),
    SD_BUS_SIGNAL("NewStatus", "s", 0),
    SD_BUS_SIGNAL("NewIconThemePath", "s", 0),
    SD_BUS_VTABLE_END,
};

StatusNotifierItem::StatusNotifierItem(SessionBus& givenBus, DispatchQueue& givenQueue,
                                       const MainBundle& givenBundle, ActivationToken& givenToken,
                                       std::function<void()> givenOnActivate,
                                       std::function<void()> givenOnRegistered)
    : sessionBus(givenBus),
      queue(givenQueue),
      bundle(givenBundle),
      token(givenToken),
      onActivate(std::move(givenOnActivate)),
      onRegistered(std::move(givenOnRegistered)),
      exportedMenu(givenQueue),
      hosts([this] { formChanged(); }, [this] { registerWithWatcher(); }) {
  sessionBus.add(*this);
}

StatusNotifierItem::~StatusNotifierItem() {
  sessionBus.remove(*this);
  busLost();
}

void StatusNotifierItem::setButton(const StatusButton& changed) {
  const bool newIcon = !sameImage(button.image, changed.image);
  const bool newDescription = button.accessibilityLabel != changed.accessibilityLabel;
  std::string text = withoutMarkup(changed.toolTip.value_or(""));
  const bool newToolTip = toolTip != text;

  button = changed;
  toolTip = std::move(text);
  if (newIcon) {
    pixmaps.clear();
    for (const auto& bitmap : button.image ? button.image->bitmaps : std::vector<Bitmap>()) {
      Pixmap pixmap{bitmap.width, bitmap.height, bitmap.rgba};
      for (std::size_t at = 0; at + 3 < pixmap.argb.size(); at += 4) {
        const std::uint8_t alpha = bitmap.rgba[at + 3];
        std::memcpy(&pixmap.argb[at + 1], &bitmap.rgba[at], 3);
        pixmap.argb[at] = alpha;
      }
      pixmaps.push_back(std::move(pixmap));
    }
  }
  if (bus == nullptr) return;
  // Hosts read the description again together with the icon.
  if (newIcon || newDescription) sd_bus_emit_signal(bus, objectPath, itemInterface, "NewIcon", "");
  if (newToolTip) sd_bus_emit_signal(bus, objectPath, itemInterface, "NewToolTip", "");
}

void StatusNotifierItem::busConnected(sd_bus* connection) {
  bus = connection;
  sd_bus_slot* slot = nullptr;
  if (sd_bus_add_object_vtable(bus, &slot, objectPath, itemInterface, interface, this) >= 0)
    object.reset(slot);
  exportedMenu.busConnected(bus);
  if (sd_bus_match_signal_async(bus, &slot, nullptr, watcherPath, watcherName, "StatusNotifierHostRegistered",
                                &hostRegistered, &ignoreAnswer, this) >= 0) {
    hostMatch.reset(slot);
  }
  hosts.busConnected(bus);
}

void StatusNotifierItem::busLost() {
  exportedMenu.busLost();
  hosts.busLost();
  object.reset();
  hostMatch.reset();
  registration.reset();
  bus = nullptr;
}

void StatusNotifierItem::registerWithWatcher() {
  // By the path of the object: asking for our own unique name would wait for the bus.
  sd_bus_slot* slot = nullptr;
  if (sd_bus_call_method_async(bus, &slot, watcherName, watcherPath, watcherName,
                               "RegisterStatusNotifierItem", &registered, this, "s", objectPath) >= 0) {
    registration.reset(slot);
  }
}

int StatusNotifierItem::registered(sd_bus_message* reply, void* data, sd_bus_error*) {
  const sd_bus_error* const failure = sd_bus_message_get_error(reply);
  if (failure == nullptr) {
    const auto& self = *static_cast<StatusNotifierItem*>(data);
    if (self.onRegistered) self.onRegistered();
  } else if (sd_bus_error_has_name(failure, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
             sd_bus_error_has_name(failure, SD_BUS_ERROR_SERVICE_UNKNOWN)) {
    reportOnce(
        "no tray on this desktop: the icon appears as soon as there is one; "
        "where there is no desktop, use --terminal");
  } else {
    reportOnce(std::string("the tray did not take the icon: ") + failure->name);
  }
  return 0;
}

int StatusNotifierItem::hostRegistered(sd_bus_message* signal, void* data, sd_bus_error*) {
  if (!isForEverybody(signal)) return 0;
  // A watcher that had no host may have refused the item; one that knows it takes it as it is.
  static_cast<StatusNotifierItem*>(data)->registerWithWatcher();
  return 0;
}

void StatusNotifierItem::formChanged() {
  exportedMenu.setForm(hosts.form());
  sd_bus_emit_signal(bus, objectPath, itemInterface, "NewIcon", "");
}

/// Empty for hosts that read the pixmaps. The path of the same picture for the others.
std::string StatusNotifierItem::iconName() const {
  if (!hosts.form().iconFiles || !button.image) return "";
  const auto& bitmaps = button.image->bitmaps;
  const bool grey = std::all_of(bitmaps.begin(), bitmaps.end(), isGrey);
  return bundle.pathForResource(grey ? "codex-menubar-grey" : "codex-menubar", "png").value_or("");
}

int StatusNotifierItem::appendPixmaps(sd_bus_message* message, const std::vector<Pixmap>& some) const {
  int result = sd_bus_message_open_container(message, 'a', "(iiay)");
  for (const auto& pixmap : some) {
    if (result >= 0) result = sd_bus_message_open_container(message, 'r', "iiay");
    if (result >= 0) result = sd_bus_message_append(message, "ii", pixmap.width, pixmap.height);
    if (result >= 0)
      result = sd_bus_message_append_array(message, 'y', pixmap.argb.data(), pixmap.argb.size());
    if (result >= 0) result = sd_bus_message_close_container(message);
  }
  return result < 0 ? result : sd_bus_message_close_container(message);
}

/// An icon name, pixmaps, a title and a text. The whole of ours is the title: not every host shows the text.
int StatusNotifierItem::appendToolTip(sd_bus_message* message) const {
  int result = sd_bus_message_open_container(message, 'r', "sa(iiay)ss");
  if (result >= 0) result = sd_bus_message_append(message, "s", "");
  if (result >= 0) result = appendPixmaps(message, {});
  if (result >= 0) result = sd_bus_message_append(message, "ss", toolTip.c_str(), "");
  return result < 0 ? result : sd_bus_message_close_container(message);
}

int StatusNotifierItem::property(sd_bus*, const char*, const char*, const char* propertyName,
                                 sd_bus_message* reply, void* data, sd_bus_error*) {
  const auto& self = *static_cast<const StatusNotifierItem*>(data);
  const std::string_view name = propertyName;
  const auto text = [reply](const std::string& value) {
    return sd_bus_message_append(reply, "s", value.c_str());
  };
  if (name == "Category") return text("ApplicationStatus");
  if (name == "Id") return text("kestrune-menu-client");
  if (name == "Title") return text("Kestrune");
  if (name == "Status") return text("Active");
  if (name == "IconName") return text(self.iconName());
  if (name == "WindowId") return sd_bus_message_append(reply, "i", 0);
  if (name == "IconPixmap") return self.appendPixmaps(reply, self.pixmaps);
  if (name == "OverlayIconPixmap" || name == "AttentionIconPixmap") return self.appendPixmaps(reply, {});
  if (name == "IconAccessibleDesc") return text(displayRow(self.button.accessibilityLabel.value_or("")));
  if (name == "ToolTip") return self.appendToolTip(reply);
  if (name == "ItemIsMenu") return sd_bus_message_append(reply, "b", 1);
  if (name == "Menu") return sd_bus_message_append(reply, "o", DBusMenu::objectPath);
  return text("");
}

int StatusNotifierItem::activate(sd_bus_message* call, void* data, sd_bus_error* error) {
  if (static_cast<StatusNotifierItem*>(data)->hosts.form().menuAtError)
    return sd_bus_error_set_const(error, SD_BUS_ERROR_NOT_SUPPORTED, "The host shows the menu");
  return openWindow(call, data, error);
}

int StatusNotifierItem::openWindow(sd_bus_message* call, void* data, sd_bus_error*) {
  auto& self = *static_cast<StatusNotifierItem*>(data);
  self.queue.async(self.onActivate);
  return sd_bus_reply_method_return(call, "");
}

int StatusNotifierItem::provideToken(sd_bus_message* call, void* data, sd_bus_error*) {
  const char* given = nullptr;
  if (const int result = sd_bus_message_read(call, "s", &given); result < 0) return result;
  static_cast<StatusNotifierItem*>(data)->token.give(given);
  return sd_bus_reply_method_return(call, "");
}

int StatusNotifierItem::ignore(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "");
}

}  // namespace kestrune
