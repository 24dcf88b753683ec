# SPDX-License-Identifier: MIT
"""What the tests of the responder are made of: a systemd in namespaces, a bus that follows a script, the probe."""
