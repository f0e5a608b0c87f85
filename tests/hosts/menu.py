"""The tray menu that the checks expect, with the project and thread of the sample backend."""

import re
from dataclasses import dataclass

from rig.display import Rectangle

PROJECT, THREAD = "my_cool__project_ & <b>x</b> 100% &amp;", "_a & b_ && \"q\" <e>"
OTHER_PROJECT, OTHER_THREAD = "Kestrune Menu Client", "Tray menu and status lamp"
MENU_ROLES = "menu item", "check menu item", "label", "push button", "check box", "separator"
STATUS, PROJECT_ROW, KEEP_AWAKE_STATE, GUIDE, SETTINGS = 2, 8, 11, 24, 26
CHECKED, ENABLED = {15, 16}, {*range(14, 19), *range(21, 28), 29}
ROWS = [
    "Kestrune", "🟢 連線狀態：已連線", "連接模式：Kestrune 自托管", r"Codex：OK.*", r"Remote Control：OK.*", r"Codex App：OK.*",
    r"ChatGPT Remote：OK.*", "同步專案：" + re.escape(PROJECT), "同步會話：" + re.escape(THREAD), r"目前網路：.+", "保持喚醒：已開啟",
    "", "連線與常駐", "開機自動啟動菜單欄", "自動維持連線", "保持 Mac 醒著（防止斷線）", "使用官方 ChatGPT 模式", "手動停止連線",
    "", "查看與設定", "查看完整診斷", "檢查 Codex 版本與 Remote Control", "打開 Codex App", "官方 ChatGPT 連接說明", "打開專案資料夾",
    "連線與 Token 設定…", "重新啟動菜單欄", "", "退出 Kestrune"]
PAIRING = "https://relay.example.com", "a-token-of-the-phone"


@dataclass
class Row:
    text: str  # empty for a separator
    checked: bool
    enabled: bool
    place: Rectangle
