#!/usr/bin/python3
# Copyright 2026 The velnor-postgres developers
"""The Ansible module velnor_postgres: the PostgreSQL service of a velnor-postgres host, driven
through velnor's JSON answers. It never edits the job file itself."""

from __future__ import annotations

DOCUMENTATION = r"""
---
module: velnor_postgres
short_description: Settings and state of the PostgreSQL service that velnor administers
description:
  - Sets the PostgreSQL server's settings in its launchd job file and starts, stops or restarts
    the service, by running C(velnor --json) on the managed host.
  - Settings are compared as the server program reads them (C(1GB) and C(1048576kB) are the same
    setting), so a second run with the same settings changes nothing and restarts nothing.
  - Check mode runs C(velnor settings --plan) and changes nothing; diff mode shows each setting
    that differs before and after.
  - A value that the server refuses fails the host with the server's own message, and nothing of
    the run's settings is written on that host.
version_added: "0.1.0"
options:
  settings:
    description:
      - Server settings, name to value. Values are passed as strings; C(true) and C(false) as
        C(on) and C(off). Settings not named are left as they are.
    type: dict
    default: {}
  state:
    description:
      - C(started) starts the service when it is stopped, C(stopped) stops it when it runs,
        C(restarted) always restarts it. Unset leaves the state alone (a running server still
        restarts to pick up changed settings).
    type: str
    choices: [started, stopped, restarted]
  expect_version:
    description:
      - Refuse to write unless the job file is still this version (the C(version) that an
        earlier run, in check mode for instance, returned).
    type: str
  velnor:
    description: The velnor command on the managed host.
    type: path
    default: velnor
notes:
  - Runs as root on the managed host (C(become) when the connection is not root's).
  - Supports check mode and diff mode.
author:
  - velnor-postgres developers
"""

EXAMPLES = r"""
- name: Database servers share their memory settings
  hosts: databases
  become: true
  tasks:
    - name: Set work_mem and keep the service running
      velnor.postgres.velnor_postgres:
        settings:
          work_mem: 64MB
          log_statement: ddl
        state: started

- name: Restart the service
  velnor.postgres.velnor_postgres:
    state: restarted
"""

RETURN = r"""
changed:
  description: Whether a setting was written or the service's state changed.
  type: bool
  returned: always
version:
  description: The job file's version (SHA-256 of its bytes) after the run, or in check mode the
    one the plan was made from.
  type: str
  returned: when settings were given
settings:
  description: Per setting, what velnor's plan says of it.
  type: list
  elements: dict
  returned: when settings were given
  contains:
    name: {description: The setting's name., type: str}
    stored: {description: The value the job file held, absent when none., type: str}
    value: {description: The new value., type: str}
    accepted: {description: Whether the server program accepts the new value., type: bool}
    serverSays: {description: How the server reads the value, or its message when it refuses it., type: str}
    differs: {description: Whether the server reads the new value differently., type: bool}
restarted:
  description: Whether the settings' write restarted a running service.
  type: bool
  returned: when settings were given
state:
  description: The service's state after the run, C(running) or C(stopped).
  type: str
  returned: always
"""

import json

from ansible.module_utils.basic import AnsibleModule

# velnor's exit statuses that carry an answer the module reads.
STOPPED = 3
VERSION_CHANGED = 4


def as_setting_value(value):
    """The value as the server's settings take it: strings as they are, booleans on/off."""
    if isinstance(value, bool):
        return "on" if value else "off"
    return str(value)


class Velnor:
    def __init__(self, module):
        self.module = module
        self.command = module.params["velnor"]

    def run(self, *arguments):
        """velnor --json with arguments, never through a shell: status, the JSON answer, errors."""
        status, out, err = self.module.run_command([self.command, "--json", *arguments])
        try:
            answer = json.loads(out) if out.strip() else None
        except ValueError:
            self.module.fail_json(msg=f"velnor {arguments[0]} printed no JSON: {out!r}", stderr=err)
        return status, answer, err.strip()

    def fail(self, what, status, err, **facts):
        self.module.fail_json(msg=err or f"velnor {what} exited {status}", rc=status, **facts)


def refusals(settings):
    return "; ".join(f"{s['name']}={s['value']}: {s['serverSays']}"
                     for s in settings if not s["accepted"])


def diff_of(settings):
    differing = [s for s in settings if s["differs"]]
    return {"before": "".join(f"{s['name']} = {s.get('stored', '(not set)')}\n" for s in differing),
            "after": "".join(f"{s['name']} = {s['value']}\n" for s in differing)}


def change_settings(velnor, module, result):
    """Plans (check mode) or applies the settings; fails the host when the server refuses one."""
    wanted = [f"{name}={as_setting_value(value)}" for name, value in module.params["settings"].items()]
    verb = ["settings", "--plan" if module.check_mode else "--apply", *wanted]
    if module.params["expect_version"] and not module.check_mode:
        verb += ["--expect-version", module.params["expect_version"]]
    status, answer, err = velnor.run(*verb)
    if not isinstance(answer, dict) or "settings" not in answer:
        velnor.fail("settings", status, err)
    result.update(version=answer["version"], settings=answer["settings"])
    if status == VERSION_CHANGED:
        velnor.fail("settings", status, err, **result)
    if any(not setting["accepted"] for setting in answer["settings"]):
        module.fail_json(msg=f"the server refuses {refusals(answer['settings'])}", rc=status, **result)
    if status != 0:
        velnor.fail("settings", status, err, **result)
    changed = answer["changed"] if "changed" in answer else any(s["differs"] for s in answer["settings"])
    result["restarted"] = bool(changed and answer["restart"])
    result["changed"] = result["changed"] or changed
    if module._diff and changed:
        result["diff"] = diff_of(answer["settings"])


def service_runs(velnor):
    status, answer, err = velnor.run("status")
    if status not in (0, STOPPED):
        velnor.fail("status", status, err)
    return status == 0


def change_state(velnor, module, result, wanted):
    """Starts, stops or restarts the service as wanted, when that changes something."""
    runs = service_runs(velnor)
    verb = {"started": None if runs else "start", "stopped": "stop" if runs else None,
            "restarted": "restart"}[wanted]
    result["state"] = "stopped" if wanted == "stopped" else "running"
    if verb is None:
        return
    result["changed"] = True
    if module.check_mode:
        return
    status, _, err = velnor.run(verb)
    if status != 0:
        velnor.fail(verb, status, err, **result)


def main():
    module = AnsibleModule(
        argument_spec={
            "settings": {"type": "dict", "default": {}},
            "state": {"type": "str", "choices": ["started", "stopped", "restarted"]},
            "expect_version": {"type": "str"},
            "velnor": {"type": "path", "default": "velnor"},
        },
        supports_check_mode=True,
    )
    velnor = Velnor(module)
    result = {"changed": False}
    wanted_state = module.params["state"]
    # A service to be stopped stops first, so that the settings' write restarts nothing.
    if wanted_state == "stopped":
        change_state(velnor, module, result, wanted_state)
    if module.params["settings"]:
        change_settings(velnor, module, result)
    if wanted_state in ("started", "restarted"):
        change_state(velnor, module, result, wanted_state)
    if "state" not in result:
        result["state"] = "running" if service_runs(velnor) else "stopped"
    module.exit_json(**result)


if __name__ == "__main__":
    main()
