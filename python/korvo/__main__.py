import sys

try:
    from .cli import main
except KeyboardInterrupt:  # Ctrl-C while the modules load
    sys.exit(130)

sys.exit(main())
