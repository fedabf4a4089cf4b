#!/usr/bin/env bash
# Runs the guide's example and checks that it ended by itself, with status 0, after adding up every
# reading (see check_demo.sh). Usage: check_guide_example.sh [emulator ...] guide_example
exec "$(dirname "$0")/check_demo.sh" "$@"
