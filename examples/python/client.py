#!/usr/bin/env python3
"""Hears of each pick of "Paper Archive" on a device's panel, until Ctrl-C. usage: client.py [ADDRESS [PORT]]"""
import sys

import qoma

address = sys.argv[1] if len(sys.argv) > 1 else "127.0.0.1"
port = int(sys.argv[2]) if len(sys.argv) > 2 else None
try:
    with qoma.Agent(address, port=port) as agent:
        agent.add("Paper Archive")
        for event in agent:
            print(f"kind {event.kind:d}: {event.option}", flush=True)
except KeyboardInterrupt:
    pass
except qoma.Error as error:
    sys.exit(f"client: {error}")
