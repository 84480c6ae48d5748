#!/usr/bin/env bash
# meanings.sh COMPILER...: what the compiler refuses of meanings.cpp, and in which words.
set -euo pipefail
here=$(dirname "$0")
wanted=(
    'RECORD(MemberWithoutMeaning): a member has no meaning, or a meaning no member'
    'RECORD(MeaningWithoutMember): a member has no meaning, or a meaning no member'
    'RECORD(MeaningsOutOfOrder): the meanings are not the members, in their order'
    'RECORD(NameTwice): two members have one name'
    'RECORD(DefaultOutsideItsRange): a name, a sentence, a range or a default is not as it should be'
    "RECORD(KindThatDoesNotFit): a member can't hold a value of its kind or range"
    "RECORD(RangeThatDoesNotFit): a member can't hold a value of its kind or range"
    'RECORD(ConditionOnNoMember): a bound or a condition is no number of the record'
    'RECORD(ConditionOnItself): a condition depends on itself'
    'VARIANT(OfNoMember, AsItShouldBe): a meaning has no member'
    'WithoutAnyText: a method without a meaning: give it a METHOD'
    'a record that a method uses has members without a meaning: give it a RECORD'
    'METHOD(WithoutSentence): expected a sentence'
)
said=$("$@" "$here/meanings.cpp" 2>&1) && { echo 'all of it was accepted'; exit 1; }
failed=0
for words in "${wanted[@]}"; do
    grep -E 'error:' <<<"$said" | grep -qF -- "$words" || { echo "not refused: $words"; failed=1; }
done
grep -qF 'Tarn_sys_diag_WithoutMeaning' <<<"$said" || { echo 'not named: the record without a meaning'; failed=1; }
! grep -F 'RECORD(AsItShouldBe)' <<<"$said" || failed=1
[[ $failed -eq 0 ]] || { printf '%s\n' "$said"; exit 1; }
