"""The texts of the windows that commands of the menu open. The tests of the logic compare all these texts."""

from rig.client import Window

GUIDE_TITLE = "官方 ChatGPT 連接說明"
OWN_MODE = Window(
    "已切換連接模式",
    "目前模式：Kestrune 自托管。\n\n菜單欄會重點協助你維持 Mac service、desktop bridge、VPS tunnel、配對 QR 和手機 App Token。")
NOT_CONNECTING = Window(
    "已關閉自動連線", "已停止本地服務、桌面橋接與反向隧道；之後換網時也不會自動重連。")
AWAKE = Window(
    "已開啟保持喚醒",
    "自動連線開啟期間，Kestrune 會請求 macOS 防止閒置睡眠與螢幕睡眠，讓手機端更容易保持連線。")
NOT_AWAKE = Window("已關閉保持喚醒", "已釋放防睡眠請求；Mac 會回到系統原本的睡眠策略。")
LOGIN_ON = Window("已開啟開機自動啟動", "已保存開機自動啟動設定，會在下次登入或重開機後生效。")
STOPPED = Window("手動關停連線", "沒有輸出。\n\n已同步關閉自動連線。")
SAVED = Window("設定已保存並開始重新檢查", "🟢 隧道 <b>: &amp; 恢復")
SETTINGS_TITLE = "Kestrune 連線與桌面設定"
