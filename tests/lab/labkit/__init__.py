# SPDX-License-Identifier: MIT
"""What the lab tests are made of: labs, publishers, the probe, and the records it is to report."""
