"""The texts of the windows that commands of the menu open."""

from rig.client import Window

GUIDE = Window(
    "官方 ChatGPT 連接說明",
    "官方 ChatGPT 手機連接流程：\n\n"
    "1. 確認 Mac 已安裝並登入最新版 Codex App。\n"
    "2. 保持 Mac 醒著、在線，並讓 Codex App 持續運行。\n"
    "3. 在 Codex App 側邊欄選「Set up Codex mobile」。\n"
    "4. 用手機掃描 Codex App 顯示的 QR code。\n"
    "5. 在 ChatGPT App 內確認同一個帳號和 workspace，完成連接。\n\n"
    "Kestrune 自托管路徑仍然使用 VPS Relay、Mac service 和手機 App Token。兩條路徑可以並行使用：普通遠程控制用官方 ChatGPT "
    "App；需要自托管、私有 Relay 或獨立交付時用 Kestrune。")
OFFICIAL_MODE = Window(
    "已切換連接模式",
    "目前模式：官方 ChatGPT。\n\n菜單欄會重點協助你保持 Mac 醒著、打開 Codex App、檢查 ChatGPT Remote Ready。Kestrune "
    "自托管服務不會被自動關閉；需要停止時可手動關停連線。")
OWN_MODE = Window(
    "已切換連接模式",
    "目前模式：Kestrune 自托管。\n\n菜單欄會重點協助你維持 Mac service、desktop bridge、VPS tunnel、配對 QR 和手機 App Token。")
CONNECTING = Window(
    "已開啟自動連線", "之後換 Wi\u2011Fi、熱點或網路路徑時，Kestrune 會自動重新檢查並嘗試恢復連線。")
NOT_CONNECTING = Window(
    "已關閉自動連線", "已停止本地服務、桌面橋接與反向隧道；之後換網時也不會自動重連。")
AWAKE = Window(
    "已開啟保持喚醒",
    "自動連線開啟期間，Kestrune 會請求 macOS 防止閒置睡眠與螢幕睡眠，讓手機端更容易保持連線。")
NOT_AWAKE = Window("已關閉保持喚醒", "已釋放防睡眠請求；Mac 會回到系統原本的睡眠策略。")
LOGIN_ON = Window("已開啟開機自動啟動", "已保存開機自動啟動設定，會在下次登入或重開機後生效。")
STOPPED = Window("手動關停連線", "沒有輸出。\n\n已同步關閉自動連線。")
RECONNECTED = Window("刷新連線", "🟢 隧道 <b>: &amp; 恢復")


class SETTINGS:
    title = "Kestrune 連線與桌面設定"
    text = "這裡調整的是手機連線入口、Mac 本機服務以及預設工作目錄。保存後會自動重新檢查連線。"
    labels = [
        "手機配對",
        "第一次把手機接到這台 Mac 時，先在菜單欄顯示配對 QR，再用 iPhone 系統相機掃描即可自動帶入連線資訊。",
        "連線",
        "手機連線 API URL",
        "手機 App Token",
        "Mac 本機 Token",
        "專案",
        "專案根目錄",
        "專案根目錄用來限定手機端可瀏覽、讀取和展示的項目範圍。手機端新增項目只輸入名稱時，也會放到這個根目錄下。"
        "建議設為存放客戶項目的上層資料夾，例如 ~/APPtest 或你的工作區根目錄。",
        "語音輸入",
        "OpenAI API Key",
        "OPENAI_API_KEY 只用在手機端的語音轉文字。桌面 Codex 會話的模型、推理級別與權限仍以桌面端目前設定為準。",
        "建議分開管理兩個 Token：手機 App 用 KESTRUNE_APP_API_TOKEN；Mac 本機服務用 KESTRUNE_MAC_SERVICE_TOKEN。",
    ]

    @staticmethod
    def failed(reason):
        return Window("設定保存失敗", reason, warns=True)


SAVED = RECONNECTED._replace(title="設定已保存並開始重新檢查")
