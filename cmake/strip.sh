#!/bin/sh
# What is installed loses more than symbols, as Debian has it. usage: strip.sh FILE
exec strip --remove-section=.comment --remove-section=.note "$@"
