"""What the services and the command line share: settings, projects, HTTP requests and logging."""

import http.client
import json
import os
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
ENV_FILE = REPO / ".env"
PROJECTS_FILE = REPO / "projects.json"

SERVICE_PORT = 8765
BRIDGE_PORT = 8766
TUNNEL_PORT = 18765

TOKEN_KEY = "KESTRUNE_MAC_SERVICE_TOKEN"
ANSWER_LIMIT = 2.0


def read_settings():
    """Returns the KEY=VALUE lines of .env as a dict; raises OSError when .env cannot be read.
    Follows the rules of docs/backend.md, so that the client finds the same values."""
    settings = {}
    for line in ENV_FILE.read_bytes().decode("utf-8", "replace").split("\n"):
        key, equals, value = line.partition("=")
        if equals:
            settings.setdefault(key, value.strip())
    return settings


def service_token():
    try:
        return read_settings().get(TOKEN_KEY, "")
    except OSError:
        return ""


def read_projects():
    """Returns the projects in projects.json; raises ValueError when a user has made it invalid."""
    document = json.loads(PROJECTS_FILE.read_text("utf-8"))
    projects = document.get("projects") if isinstance(document, dict) else None
    if not isinstance(projects, list):
        raise ValueError("'projects' is not a list")
    for number, project in enumerate(projects, 1):
        if not isinstance(project, dict):
            raise ValueError(f"project {number} is not an object")
        for key, kind in {"id": str, "title": str, "thread_name": str, "selected": bool}.items():
            if not isinstance(project.get(key), kind):
                raise ValueError(f"project {number}: '{key}' is missing or of the wrong type")
    return projects


def write_projects(projects):
    # Replace the file by a rename, so that the service never reads half of it.
    fresh = PROJECTS_FILE.with_suffix(f".{os.getpid()}.new")
    text = json.dumps({"projects": projects}, indent=2, ensure_ascii=False)
    fresh.write_text(text + "\n", "utf-8")
    fresh.replace(PROJECTS_FILE)


def ask(port, path, token=""):
    """Sends GET to 127.0.0.1. Returns the status and the JSON, which is None if the body is no JSON.
    Raises OSError when nothing answers."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=ANSWER_LIMIT)
    try:
        # Pass bytes: http.client would refuse a text with characters outside Latin-1.
        connection.request("GET", path, headers={"Authorization": f"Bearer {token}".encode()})
        response = connection.getresponse()
        try:
            return response.status, json.loads(response.read())
        except ValueError:
            return response.status, None
    except (http.client.HTTPException, ValueError) as error:
        raise ConnectionError(f"not an HTTP answer: {error}") from error
    finally:
        connection.close()


def log(message):
    print(time.strftime("%Y-%m-%d %H:%M:%S"), message, file=sys.stderr, flush=True)
