*> One job of script/bench cobol on an indexed file: argument 1 names it, argument 2 says how many records the file
*> has, argument 3 how many the random jobs touch. Prints the seconds between before OPEN and after CLOSE.
identification division.
program-id. indexed-bench.
environment division.
input-output section.
file-control.
    select people assign "people.dat" organization indexed access dynamic record key person
        alternate record key town with duplicates status outcome.
data division.
file section.
fd people.
01 entry-of-one.
    05 person pic 9(9).
    05 town pic 9(6).
    05 details pic x(85).
working-storage section.
01 outcome pic xx.
01 job pic x(16).
01 argument pic x(12).
01 total binary-long.
01 touched binary-long.
01 i binary-long.
01 j binary-long.
01 held binary-long.
01 drawn binary-long.
01 quotient binary-long.
01 found binary-long value 0.
01 started.
    05 hours pic 99. 05 minutes pic 99. 05 hundredths pic 9999.
01 ended.
    05 hours pic 99. 05 minutes pic 99. 05 hundredths pic 9999.
01 elapsed pic s9(8) comp-5.
01 printed pic z(5)9.99.
01 permutation.
    05 number-of binary-long occurs 10000000.
procedure division.
    accept job from argument-value
    accept argument from argument-value
    compute total = function numval(argument)
    accept argument from argument-value
    compute touched = function numval(argument)
    call "srand48" using by value 7
    evaluate job
    when "load-ascending" perform in-order perform timed-load
    when "load-random" perform shuffled perform timed-load
    when "scan-forward" perform scan
    when "read-primary" perform shuffled perform by-person
    when "read-alternate" perform shuffled perform by-town
    when "rewrite" perform shuffled perform change
    when other display "unknown job " job move 2 to return-code
    end-evaluate
    stop run.
in-order.
    perform varying i from 1 by 1 until i > total move i to number-of(i) end-perform.
shuffled.
    perform in-order
    perform varying i from total by -1 until i < 2
        call "lrand48" returning drawn
        divide drawn by i giving quotient remainder j
        add 1 to j
        move number-of(i) to held move number-of(j) to number-of(i) move held to number-of(j)
    end-perform.
timed-load.
    accept started from time
    open output people
    perform expect-00
    move all "d" to details
    perform varying i from 1 by 1 until i > total
        move number-of(i) to person
        divide number-of(i) by 100000 giving quotient remainder j
        move j to town
        write entry-of-one
        perform expect-0
    end-perform
    perform finish.
scan.
    accept started from time
    open input people
    perform until outcome = "10"
        read people next at end continue not at end add 1 to found end-read
    end-perform
    if found not = total display "read " found " of " total " records" move 1 to return-code end-if
    perform finish.
by-person.
    accept started from time
    open input people
    perform varying i from 1 by 1 until i > touched
        move number-of(i) to person
        read people
        perform expect-00
    end-perform
    perform finish.
by-town.
    accept started from time
    open input people
    perform varying i from 1 by 1 until i > touched
        divide number-of(i) by 100000 giving quotient remainder j
        move j to town
        read people key is town
        perform expect-0
    end-perform
    perform finish.
change.
    accept started from time
    open i-o people
    perform varying i from 1 by 1 until i > touched
        move number-of(i) to person
        read people
        perform expect-00
        move all "c" to details
        rewrite entry-of-one
        perform expect-0
    end-perform
    perform finish.
finish.
    close people
    perform expect-00
    accept ended from time
    compute elapsed = (hours of ended - hours of started) * 360000
        + (minutes of ended - minutes of started) * 6000 + hundredths of ended - hundredths of started
    if elapsed < 0 add 8640000 to elapsed end-if
    compute printed = elapsed / 100
    display function trim(printed).
expect-00.
    if outcome not = "00" perform unexpected end-if.
expect-0.
    if outcome(1:1) not = "0" perform unexpected end-if.
unexpected.
    display job ": status " outcome " at record " i upon syserr
    move 1 to return-code
    stop run.
end program indexed-bench.
