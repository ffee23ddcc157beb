#!/usr/bin/python3
"""Run by virtual-product inside of its namespaces, which tells everything through the environment:
the service ends processes by what their command lines contain."""

import os
import sys
import time

from board import lay_out
from control import Control
from core import loop
from core.words import Refused
from virtualproduct import OUT, VirtualProduct


def main() -> None:
    began = time.monotonic()
    # Of this program alone.
    told = {name: os.environ.pop(f"PRODUCT_{name}", "")
            for name in "BUILD OUT DIRECTORY TREE PROGRAM SERVICE ENVIRONMENT UNDER PULSE".split()}
    if not told["SERVICE"] or os.getppid() != 1:
        sys.exit("this program works inside of its namespaces only; start virtual-product")
    try:
        lay_out([told["BUILD"], told["OUT"], told["DIRECTORY"], told["TREE"]], began)
    except OSError as error:
        print(f"mount {error.filename}: {error.strerror}")
        return
    try:
        product = VirtualProduct(began, told["PULSE"] == "real", told["PROGRAM"],
                                 told["ENVIRONMENT"].splitlines(), told["UNDER"])
        Control(product, f"{OUT}/control")
        if told["SERVICE"] == "start":
            product.service.start()
    except Refused as error:
        sys.exit(f"virtual-product: {error}")
    except OSError as error:
        sys.exit(f"virtual-product: {error.filename}: {error.strerror}")
    print("ready", flush=True)
    loop.run()


if __name__ == "__main__":
    main()
