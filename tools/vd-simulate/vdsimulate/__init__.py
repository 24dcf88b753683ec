# SPDX-License-Identifier: MIT
"""A fleet of simulated devices, a module for each concern."""
