"""Makes the requests that the client sends to KestruneMenuDialogs, and its answers."""

VERSION = 3  # the version of the protocol

# The enumerations of the protocol, which are sent as numbers.
ENUMERATIONS = {
    "style": ("warning", "informational"),
    "kind": ("label", "textField", "secureTextField", "button", "image", "stack", "scroll", "container"),
    "fontWeight": ("regular", "medium", "semibold"), "textColor": ("primary", "secondary"),
    "textAlignment": ("natural", "center"), "lineBreak": ("wordWrap", "truncateMiddle"),
    "alignment": ("leading", "centerX")}


def numbered(described):
    """Returns `described` with numbers instead of the names of enumerators."""
    return described | {name: names.index(described[name]) for name, names in ENUMERATIONS.items() if name in described}


def alert(number, title="標題", text="內容", buttons=("好",), style="informational", view=None):
    described = {"style": style, "messageText": title, "informativeText": text, "buttons": list(buttons),
                 "accessoryView": view}
    return {"showAlert": {"id": number, "alert": numbered(described)}}


def title_of(request):
    """Returns the title of the window that the request opens."""
    return request["showAlert"]["alert"]["messageText"] if "showAlert" in request else "Kestrune"


def answered(number, button, **fields):
    """Makes the event by which a window reports its answer."""
    return {"answered": {"id": number, "answer": {"button": button, "fields": fields}}}


def raising(token=""):
    return {"raise": {"activationToken": token}}


def view(kind, *children, **properties):
    return numbered({
        "kind": kind, "identifier": "", "text": "", "placeholder": "", "action": "", "accessibilityLabel": "",
        "fontSize": 13, "fontWeight": "regular", "textColor": "primary", "textAlignment": "natural",
        "lineBreak": "wordWrap", "maximumLines": 0, "width": 0, "height": 0, "alignment": "leading", "spacing": 0,
        "insets": insets(0, 0, 0, 0), "image": None, "children": list(children), **properties})


def insets(top, left, bottom, right):
    return {"top": top, "left": left, "bottom": bottom, "right": right}


def field(identifier, text="", placeholder="", secure=False, width=300):
    return view("secureTextField" if secure else "textField", identifier=identifier, text=text,
                placeholder=placeholder, width=width)


def titled(title, content):
    return view("stack", view("label", text=title), {**content, "accessibilityLabel": title}, spacing=4)


def picture(*bitmaps, side=260, name="圖"):
    """Makes a picture. Each bitmap is a list of rows of digits: 0 is black, 1 is white, 2 is red."""
    colours = [0, 0, 0, 255], [255, 255, 255, 255], [255, 0, 0, 255]
    return view("image", width=side, height=side, accessibilityLabel=name, image={
        "width": side, "height": side, "isTemplate": False, "bitmaps": [
            {"width": len(rows[0]), "height": len(rows),
             "rgba": [channel for row in rows for digit in row for channel in colours[int(digit)]]}
            for rows in bitmaps]})


def item(number, title="", action="", key="", checked=None, enabled=True, separator=False):
    return {"id": number, "isSeparator": separator, "title": title, "action": action, "keyEquivalent": key,
            "checked": checked, "enabled": enabled}


def rows(*items):
    return {"showMenu": {"menu": {"items": list(items)}}}


def menu(status="🟢 連線狀態：已連線", connection="stop", checked=True):
    """Makes the rows of the client's menu."""
    def label(number, title):
        return item(number, title, enabled=False)
    eighteenth = {"stop": item(18, "手動停止連線", "stopConnection", "x"),
                  "refresh": item(18, "立即重新檢查連線", "refreshNow", "r"),
                  "busy": label(18, "正在重新檢查並恢復連線…")}
    return rows(
        label(1, "Kestrune"), label(2, status), label(3, "連接模式：Kestrune 自托管"), label(4, "Codex：尚未檢查"),
        label(5, "Remote Control：尚未檢查"), label(6, "Codex App：尚未檢查"), label(7, "ChatGPT Remote：尚未檢查"),
        label(8, "同步專案：my_project & <b>co</b>"), label(9, "同步會話：尚未取得"), label(10, "目前網路：Wi-Fi"),
        label(11, "保持喚醒：已關閉"), item(12, separator=True), label(13, "連線與常駐"),
        item(14, "開機自動啟動菜單欄", "toggleLaunchAtLogin", "l", False),
        item(15, "自動維持連線", "toggleAutoConnect", "a", checked),
        item(16, "保持 Mac 醒著（防止斷線）", "toggleKeepAwake", "k", True),
        item(17, "使用官方 ChatGPT 模式", "toggleConnectionMode", "m"), eighteenth[connection],
        item(19, separator=True), label(20, "查看與設定"), item(21, "查看完整診斷", "showStatus", "s"),
        item(22, "檢查 Codex 版本與 Remote Control", "showCodexRuntimeStatus", "c"),
        item(23, "打開 Codex App", "openCodexApp", "d"), item(24, "官方 ChatGPT 連接說明", "showChatGPTRemoteGuide", "g"),
        item(25, "打開專案資料夾", "openProjectFolder", "o"), item(26, "連線與 Token 設定…", "showSettings", ","),
        item(27, "重新啟動菜單欄", "restartMenuClient", "R"), item(28, separator=True),
        item(29, "退出 Kestrune", "quit", "q"))
