#!/bin/sh
# libPELKAgent.so exports its JNI entry points, the load hooks and the agent and facade classes,
# and nothing else: no part of the C++ runtime carried inside it. (The stress run calls each of
# the 41 native methods through the jar.)
set -eu
lib=$1
symbols=$(nm -D --defined-only "$lib" | awk '{print $3}')
allowed='^(Java_com_quorvik_kolt_pelk_agent_PELKAgentNativeLib_[A-Za-z]+|JNI_OnLoad|JNI_OnUnload|_ZN[K]?4PELK5Agent11ActionAgent.*|_ZT[VIS]N4PELK5Agent11ActionAgentE|_ZN[K]?18ActionAgentWrapper.*|_ZT[VIS]18ActionAgentWrapper)$'
status=0
others=$(printf '%s\n' "$symbols" | grep -Ev "$allowed" || true)
if [ -n "$others" ]; then
  echo "exported but not meant to be:"
  printf '%s\n' "$others"
  status=1
fi
for hook in JNI_OnLoad JNI_OnUnload _ZN18ActionAgentWrapper11getInstanceEv _ZN4PELK5Agent11ActionAgent11getInstanceEv; do
  printf '%s\n' "$symbols" | grep -qx "$hook" || { echo "missing: $hook"; status=1; }
done
exit $status
