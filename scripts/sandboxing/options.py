"""What the sandbox is asked for, as the outer stage hands it to the inner one."""

import json


class Options:
    """What the sandbox holds beside the service, and how it runs the command."""

    def __init__(self):
        self.initdb = False
        self.make_socket_dir = False
        self.make_log_dir = False
        self.legacy_log = False
        self.job_file_format = "xml"  # or "binary", or "none" for no job file
        self.binds = []  # folders bound in besides the project, as physical paths
        self.daemon = False
        self.systemd = False
        self.command = []

    def to_json(self):
        """Returns the options as the outer stage hands them to the inner one."""
        return json.dumps(vars(self))

    @classmethod
    def from_json(cls, text):
        options = cls()
        vars(options).update(json.loads(text))
        return options
