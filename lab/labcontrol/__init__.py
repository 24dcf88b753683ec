# SPDX-License-Identifier: MIT
"""What the `lab` command is made of. Its first processes inside the namespaces stand in ../inside."""
