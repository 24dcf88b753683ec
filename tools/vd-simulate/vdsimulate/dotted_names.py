# SPDX-License-Identifier: MIT
"""Instance names with dots, which python-zeroconf alone would split."""

import zeroconf


class DottedNames:
    """Writes instance names that contain dots as the one label that they are.

    python-zeroconf holds names as text and splits them at every dot, the instance name's own ones too.
    """

    def __init__(self):
        self._instances = {}  # full name -> instance name
        names = self

        def write_name(outgoing, name):
            names.write(outgoing, name.removesuffix("."))

        zeroconf.DNSOutgoing.write_name = write_name

    def register(self, full_name, instance):
        if "." in instance:
            self._instances[full_name.removesuffix(".")] = instance

    def write(self, outgoing, name):
        labels = self._labels(name)
        for index, label in enumerate(labels):
            suffix = tuple(labels[index:])
            if suffix in outgoing.names:
                outgoing.write_short(0xC000 | outgoing.names[suffix])
                return
            outgoing.names[suffix] = outgoing.size
            outgoing.write_character_string(label.encode())
        outgoing.write_character_string(b"")

    def _labels(self, name):
        instance = self._instances.get(name)
        if instance is None:
            return name.split(".")
        return [instance, *name[len(instance) + 1:].split(".")]
