"""Starts a real systemd-logind."""

LOGIN = "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager"

# Starts logind with an empty /run, and without access to the virtual terminals of the machine.
LOGIN_MANAGER = """
mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/logind.conf.d &&
printf '[Login]\\nNAutoVTs=0\\nReserveVT=0\\n' > /run/systemd/logind.conf.d/test.conf &&
exec /lib/systemd/systemd-logind
"""


def start_login_manager(session, bus):
    """Starts logind, and returns its process when it owns its name on the system bus."""
    process = session.spawn("unshare", "--mount", "sh", "-c", LOGIN_MANAGER, environment={"SYSTEMD_LOG_TARGET": "console"})
    bus.wait_for_owner(LOGIN[0])
    return process
