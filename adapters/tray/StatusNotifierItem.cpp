#include "adapters/tray/StatusNotifierItem.h"

#include <algorithm>
#include <vector>

#include "adapters/system/System.h"
#include "text/Text.h"

namespace kestrune {

constexpr auto itemInterface = "org.kde.StatusNotifierItem";

/// Returns `text` with "<" and "&" as full-width characters, which look the same. Some hosts take the tooltip
/// or the description of the icon for markup, and drop the whole tooltip if the markup is malformed.
static std::string withoutMarkup(const std::optional<std::string>& text) {
  return replacingAll(replacingAll(displayRow(text.value_or("")), "<", "＜"), "&", "＆");
}

static bool isGrey(const Bitmap& bitmap) {
  const auto& rgba = bitmap.rgba;
  for (std::size_t at = 0; at + 3 < rgba.size(); at += 4) {
    if (rgba[at] != rgba[at + 1] || rgba[at] != rgba[at + 2]) return false;
  }
  return true;
}

/// Appends the bitmaps of an icon. The protocol demands ARGB32 in network byte order, so each pixel is
/// converted from RGBA.
static int appendPixmaps(sd_bus_message* reply, const std::vector<Bitmap>& bitmaps) {
  sd_bus_message_open_container(reply, 'a', "(iiay)");
  for (const auto& bitmap : bitmaps) {
    auto argb = bitmap.rgba;
    for (auto pixel = argb.begin(); argb.end() - pixel >= 4; pixel += 4)
      std::rotate(pixel, pixel + 3, pixel + 4);
    sd_bus_message_open_container(reply, 'r', "iiay");
    sd_bus_message_append(reply, "ii", bitmap.width, bitmap.height);
    sd_bus_message_append_array(reply, 'y', argb.data(), argb.size());
    sd_bus_message_close_container(reply);
  }
  // This call fails if any call above has failed. So no other result needs a check.
  return sd_bus_message_close_container(reply);
}

static int ignore(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "");
}

void StatusNotifierItem::addToStatusBar(double) {
  const auto formChanged = [this] {
    exportedMenu->rebuild();
    sd_bus_emit_signal(bus, objectPath, itemInterface, "NewIcon", "");
  };
  hosts.emplace(connection, formChanged, [this] { registerWithWatcher(); });
  exportedMenu.emplace(connection, parts.queue, hosts->form());
  connection.add(*this);
}

void StatusNotifierItem::setButton(const StatusButton& changed) {
  const auto& image = changed.image;
  const bool sameImage = button.image == image || (button.image && image && *button.image == *image);
  // There is no signal for a new description of the icon. Hosts read the description again after NewIcon.
  const bool newIcon = !sameImage || button.accessibilityLabel != changed.accessibilityLabel;
  const bool newToolTip = withoutMarkup(button.toolTip) != withoutMarkup(changed.toolTip);
  button = changed;
  if (bus == nullptr) return;
  if (newIcon) sd_bus_emit_signal(bus, objectPath, itemInterface, "NewIcon", "");
  if (newToolTip) sd_bus_emit_signal(bus, objectPath, itemInterface, "NewToolTip", "");
}

void StatusNotifierItem::busConnected() {
  constexpr auto everyUser = SD_BUS_VTABLE_UNPRIVILEGED;
  static const sd_bus_vtable interface[] = {
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
      SD_BUS_METHOD("Activate", "ii", "", &handler<&StatusNotifierItem::activate>, everyUser),
      SD_BUS_METHOD("SecondaryActivate", "ii", "", &handler<&StatusNotifierItem::click>, everyUser),
      SD_BUS_METHOD("ContextMenu", "ii", "", &handler<&StatusNotifierItem::click>, everyUser),
      SD_BUS_METHOD("Scroll", "is", "", &ignore, everyUser),
      SD_BUS_METHOD("ProvideXdgActivationToken", "s", "", &handler<&StatusNotifierItem::provideToken>,
                    everyUser),
      SD_BUS_SIGNAL("NewIcon", "", 0),
      SD_BUS_SIGNAL("NewToolTip", "", 0),
      SD_BUS_VTABLE_END,
  };
  sd_bus_add_object_vtable(bus, Into(object), objectPath, itemInterface, interface, this);
  sd_bus_match_signal_async(bus, Into(hostMatch), nullptr, watcherPath, watcherName,
                            "StatusNotifierHostRegistered", &handler<&StatusNotifierItem::hostRegistered>,
                            &ignoreReply, this);
  // The bus daemon answers the GetNameOwner calls of `hosts` before it forwards the registration below, and a
  // host reads this item only after the registration. So `hosts->form()` is known by then.
  registerWithWatcher();
}

void StatusNotifierItem::registerWithWatcher() {
  // Register the object path instead of this program's bus name: sd_bus_get_unique_name would block.
  sd_bus_call_method_async(bus, Into(registration), watcherName, watcherPath, watcherName,
                           "RegisterStatusNotifierItem", &handler<&StatusNotifierItem::registered>, this, "s",
                           objectPath);
}

void StatusNotifierItem::registered(sd_bus_message* reply) {
  const sd_bus_error* const failure = sd_bus_message_get_error(reply);
  if (failure == nullptr) return parts.onRegistered();
  if (sd_bus_error_has_names(failure, SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_SERVICE_UNKNOWN)) {
    reportOnce(
        "no tray on this desktop: the icon appears as soon as there is one; "
        "where there is no desktop, use --terminal");
  } else {
    reportOnce(std::string("the tray did not take the icon: ") + failure->name);
  }
}

int StatusNotifierItem::property(sd_bus*, const char*, const char*, const char* propertyName,
                                 sd_bus_message* reply, void* data, sd_bus_error*) {
  const auto& self = *static_cast<const StatusNotifierItem*>(data);
  const std::string_view name = propertyName;
  const auto& shown = self.button;
  if (name == "WindowId") return sd_bus_message_append(reply, "i", 0);
  if (name == "IconPixmap" && shown.image) return appendPixmaps(reply, shown.image->bitmaps);
  if (name.ends_with("IconPixmap")) return sd_bus_message_append(reply, "a(iiay)", 0);
  if (name == "ToolTip") {
    // The values are icon name, pixmaps, title and text. The title holds the whole tooltip, because some
    // hosts ignore the text.
    return sd_bus_message_append(reply, "(sa(iiay)ss)", "", 0, withoutMarkup(shown.toolTip).c_str(), "");
  }
  if (name == "ItemIsMenu") return sd_bus_message_append(reply, "b", 1);
  if (name == "Menu") return sd_bus_message_append(reply, "o", DBusMenu::objectPath);

  std::string text;
  if (name == "Category") text = "ApplicationStatus";
  if (name == "Id") text = "kestrune-menu-client";
  if (name == "Title") text = "Kestrune";
  if (name == "Status") text = "Active";
  if (name == "IconAccessibleDesc") text = withoutMarkup(shown.accessibilityLabel);
  if (name == "IconName" && shown.image && self.hosts->form().iconFiles) {
    const bool grey = std::ranges::all_of(shown.image->bitmaps, isGrey);
    const char* const file = grey ? "codex-menubar-grey" : "codex-menubar";
    text = self.parts.bundle.pathForResource(file, "png").value_or("");
    if (!isValidUtf8(text)) text.clear();  // a string that is not UTF-8 would make the whole reply fail
  }
  return sd_bus_message_append(reply, "s", text.c_str());
}

int StatusNotifierItem::provideToken(sd_bus_message* call, sd_bus_error* error) {
  // Refuse the token: the host would show a busy pointer after each row that opens no window.
  if (hosts->form().busyWithToken)
    return sd_bus_error_set_const(error, SD_BUS_ERROR_UNKNOWN_METHOD, "Give no token to this item");
  const char* given = nullptr;
  if (const int result = sd_bus_message_read(call, "s", &given); result < 0) return result;
  parts.onToken(given);
  return sd_bus_reply_method_return(call, "");
}

}  // namespace kestrune
