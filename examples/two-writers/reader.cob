*> Without argument: counts the records of each writer. With one: makes the empty file.
identification division.
program-id. reader.
environment division.
input-output section.
file-control.
    select people assign "people.dat" organization indexed access dynamic
        record key person-key alternate record key town with duplicates
        file status st.
data division.
file section.
fd people.
01 person.
    05 person-key.
        10 letter pic x.
        10 serial pic 9(7).
    05 town pic x(12).
    05 filler pic x(40).
working-storage section.
01 st pic xx.
01 argument pic x(10) value spaces.
01 of-a pic 9(7) value 0.
01 of-b pic 9(7) value 0.
01 by-town pic 9(7) value 0.
01 total pic 9(7) value 0.
procedure division.
    accept argument from command-line
    if argument not = spaces
        open output people close people
        stop run
    end-if
    open input people
    if st not = "00" display "readable: 0 (open answers " st ")" stop run end-if
    perform until st(1:1) not = "0"
        read people next
        if st(1:1) = "0"
            add 1 to total
            if letter = "A" add 1 to of-a else add 1 to of-b end-if
        end-if
    end-perform
    move low-values to town
    start people key >= town
    perform until st(1:1) not = "0"
        read people next
        if st(1:1) = "0" add 1 to by-town end-if
    end-perform
    close people
    display "readable: " total " (A " of-a ", B " of-b "), by town " by-town
    stop run.
end program reader.
