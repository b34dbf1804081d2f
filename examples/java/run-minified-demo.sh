#!/usr/bin/env bash
# The Java demo as a release build ships it: the demo and PELKAgent.jar shrunk, optimised and
# obfuscated together by ProGuard with the keep rules found inside PELKAgent.jar and a keep of the
# demo's main alone, then run by run-demo.sh, which must pass. The same shrinking without the jar's
# rules must make the demo fail on its first native call, so that the rules are shown to matter.
# Binds 127.0.0.1:20014 (run it in tools/isolated.sh beside other users).
#   examples/java/run-minified-demo.sh [BUILD_DIR]     (default build/)
# PROGUARD, JAVA and JAR name the tools when they are not on the path (JAVA for run-demo.sh).
set -euo pipefail
cd "$(dirname "$0")/../.."
build="$(cd "${1:-build}" && pwd)"
proguard="${PROGUARD:-proguard}"
jar="${JAR:-jar}"
demo_name="java-demo-minified"
rules_entry=META-INF/proguard/pelk-agent.pro
source tools/lib/demo-common.sh

# ProGuard 6, unlike R8, does not look for rules inside its input jars: they are taken out here.
(cd "$work" && "$jar" xf "$build/PELKAgent.jar" "$rules_entry")
[ -s "$work/$rules_entry" ] || fail "PELKAgent.jar holds no $rules_entry"
library_jar="$build/examples/java.base-for-proguard.jar"  # made by the build (tools/lib/JdkLibraryJar.java)
[ -s "$library_jar" ] || fail "build first: $library_jar is missing"

# shrink OUT [OPTIONS...]: the demo and PELKAgent.jar, shrunk into $work/OUT.
shrink() {
  local out=$1
  shift
  "$proguard" -injars "$build/PELKAgent.jar" -injars "$build/examples/pelk_java_demo.jar(!META-INF/**)" \
    -libraryjars "$library_jar" -outjars "$work/$out" \
    -keep 'public class com.quorvik.kolt.pelk.agent.demo.Demo { public static void main(java.lang.String[]); }' \
    "$@" >"$work/proguard-${out%.jar}.log" 2>&1 || fail "ProGuard failed on $out"
}

shrink with-rules.jar -include "$work/$rules_entry"
# Obfuscation did happen: the demo's listener classes have lost their names.
"$jar" tf "$work/with-rules.jar" >"$work/with-rules.out"
if grep -F 'Demo$' "$work/with-rules.out"; then
  fail "the shrunk demo still has its inner classes' names"
fi
examples/java/run-demo.sh "$build" "$work/with-rules.jar" || fail "the demo shrunk with the jar's rules failed"

shrink without-rules.jar
if examples/java/run-demo.sh "$build" "$work/without-rules.jar" >"$work/without-rules.out" 2>&1; then
  fail "the demo shrunk without the jar's rules passed: the rules are not what keeps it working"
fi
grep -q 'UnsatisfiedLinkError' "$work/without-rules.out" ||
  fail "the demo shrunk without the jar's rules failed, but not by a native method lost to renaming"
echo "java demo minified: works with the jar's keep rules; without them $(grep -o 'UnsatisfiedLinkError.*' \
  "$work/without-rules.out" | head -n 1)"
