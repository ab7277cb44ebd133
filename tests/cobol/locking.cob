*> Two programs on one file. The second is this program again, told by its argument what to try; its answer is its status.
identification division.
program-id. locking.
environment division.
input-output section.
file-control.
    select f assign "shared.dat" organization indexed access dynamic record key k
        lock mode manual status st.
    select a assign "shared.dat" organization indexed access dynamic record key ak
        lock mode automatic status st.
    select m assign "shared.dat" organization indexed access dynamic record key mk
        lock mode manual with lock on multiple records status st.
    select p assign "shared.dat" organization indexed access dynamic record key pk status st.
    select e assign "shared.dat" organization indexed access dynamic record key ek
        lock mode exclusive status st.
data division.
file section.
fd f.
01 r.
    05 k pic x.
    05 v pic x(9).
fd a.
01 ar.
    05 ak pic x.
    05 filler pic x(9).
fd m.
01 mr.
    05 mk pic x.
    05 filler pic x(9).
fd p.
01 pr.
    05 pk pic x.
    05 filler pic x(9).
fd e.
01 er.
    05 ek pic x.
    05 filler pic x(9).
working-storage section.
01 st pic xx.
01 what pic x(20).
01 command-text.
    05 filler pic x(10) value "./program ".
    05 task pic x(20).
    05 filler pic x(14) value " 2>/dev/null".
01 expected pic x(17).
01 holder pic x(20) value "a sharer with a lock".
01 asked-for pic x(40).
01 ways pic x(6) value "rsuwxe".
01 i pic 9.
01 ended pic 9(5).
01 answer pic 99.
01 answer-text redefines answer pic xx.
procedure division.
    accept what from command-line
    if what not = spaces perform second-program stop run end-if
    open output f move "1one" to r write r move "2two" to r write r move "3three" to r write r close f
    open i-o f call "expect" using "open i-o, lock mode manual" "00" st
    move "1" to k read f call "expect" using "read without lock" "00" st
    move "read1" to task perform ask call "expect" using "the other reads it with lock" "00" answer-text
    read f with lock call "expect" using "read with lock" "00" st
    move "read1" to task perform ask call "expect" using "the other reads it with lock" "51" answer-text
    move "plain1" to task perform ask call "expect" using "the other reads it without lock" "51" answer-text
    move "ignore1" to task perform ask call "expect" using "the other ignores locks" "00" answer-text
    move "read2" to task perform ask call "expect" using "the other reads another with lock" "00" answer-text
    unlock f call "expect" using "unlock" "00" st
    move "read1" to task perform ask call "expect" using "after unlock" "00" answer-text
    move "1" to k read f with lock
    commit
    move "read1" to task perform ask call "expect" using "after commit" "00" answer-text
    move "1" to k read f with lock
    move "2" to k read f with lock
    move "read1" to task perform ask call "expect" using "one lock only, the first is gone" "00" answer-text
    move "write4" to task perform ask call "expect" using "the other writes" "00" answer-text
    move "4" to k read f call "expect" using "what it wrote" "00" st
    move "1" to k read f with lock
    move "open, x" to task perform ask call "expect" using "the other opens alone what is locked" "61" answer-text
    close f
    move "read1" to task perform ask call "expect" using "after close" "00" answer-text
    open i-o m
    move "1" to mk read m with lock move "2" to mk read m with lock
    move "read1" to task perform ask call "expect" using "several locks, the first" "51" answer-text
    close m
    open i-o a
    move "1" to ak read a
    move "read1" to task perform ask call "expect" using "automatic" "51" answer-text
    read a next
    move "read1" to task perform ask call "expect" using "automatic, gone on" "00" answer-text
    close a
    *> How this program has the file open, and what the other is answered at its OPEN.
    open i-o f move "1" to k read f with lock
    move "61 00 00 61 61 61" to expected perform ask-for-each
    close f
    open input f move "an idle sharer" to holder move "00 00 00 00 00 00" to expected perform ask-for-each
    close f
    open input p move "a reader" to holder move "00 61 00 61 61 61" to expected perform ask-for-each
    close p
    open i-o p move "a writer" to holder move "61 61 61 61 61 61" to expected perform ask-for-each
    close p
    open extend p move "extend" to holder perform ask-for-each
    close p
    open i-o e call "expect" using "open alone" "00" st
    move "open alone" to holder perform ask-for-each
    move "read1" to task perform ask call "expect" using "the other opens what is open alone" "61" answer-text
    close e
    stop run.
ask.
    call "SYSTEM" using command-text giving ended
    if ended > 255 compute ended = ended / 256 end-if
    move ended to answer.
ask-for-each.
    perform varying i from 1 by 1 until i > 6
        move ways(i:1) to task(7:1) move "open, " to task(1:6) perform ask
        string holder delimited by size ", asked for " ways(i:1) delimited by size into asked-for
        call "expect" using asked-for expected(3 * i - 2:2) answer-text
    end-perform.
second-program.
    if what(1:6) = "open, "
        evaluate what(7:1)
            when "r" open input p
            when "s" open i-o f
            when "u" open input f
            when "w" open i-o p
            when "x" open i-o e
            when "e" open extend p
        end-evaluate
    else
        open i-o f
        if st = "00"
            move what(length of function trim(what):1) to k
            evaluate what(1:4)
                when "read" read f with lock
                when "plai" read f
                when "igno" read f with ignore lock
                when "writ" write r
            end-evaluate
        end-if
    end-if
    move st to answer-text
    move answer to return-code.
end program locking.
