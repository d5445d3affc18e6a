#!/usr/bin/env bash
# The GoogleTest filter of the tests that run threads, for the thread
# checker's round. A new threaded test joins by a name that matches.
echo '*Thread*:*PortLock*:*Concurrent*:*SharedBy*:*CloneToFrac*:*LockOrder*:*AcrossThreads*:SgMove.*:CluWithHosts.*:*LoaderThreads.*'
