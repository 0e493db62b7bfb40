#!/bin/sh
# Starts a service that was built without libquorvix, and has its main thread watched all the same.
export LD_PRELOAD=${QUORVIX_PRELOAD:-libquorvix-preload.so}
exec "$@"
