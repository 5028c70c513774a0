#!/bin/sh
# Runs in place of a legacy ebtables: records the call and ends well; see tool.py.
case $1 in
--version) echo 'ebtables v2.0.11 (legacy)' ;;
*) echo "$*" >>/tmp/tool/calls ;;
esac
