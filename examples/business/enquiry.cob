*> Looks customers up by name, ten on a page. Reads commands: "find NAME" (or how it begins), "next", "back",
*> "orders NUMBER" (the lines of a customer), "quit".
identification division.
program-id. enquiry.
environment division.
input-output section.
file-control.
    select customers assign "customers" organization indexed access dynamic record key c-number
        alternate record key c-name with duplicates lock mode manual status st.
    select order-lines assign "lines" organization indexed access dynamic record key l-key
        alternate record key l-customer with duplicates lock mode manual status st.
data division.
file section.
fd customers.
copy "customer.cpy".
fd order-lines.
copy "line.cpy".
working-storage section.
01 st pic xx.
    88 fine value "00" "02".
01 page-size constant as 10.
01 command-row pic x(60).
01 verb pic x(8).
01 argument pic x(30).
01 place pic 9 value 0.
    88 nowhere value 0.
    88 at-last-row value 1.
    88 at-first-row value 2.
01 row-count pic 99 value 0.
01 n pic 99.
01 steps pic 99. *> from one edge of the page to the other
01 page-rows.
    05 page-row pic x(69) occurs 10.
01 order-count pic 9(6).
01 amount-shown pic zzz,zzz,zz9.99.
01 total pic 9(11)v99.
procedure division.
    open input customers
    if not fine perform give-up end-if
    open input order-lines
    if not fine perform give-up end-if
    perform until exit
        move "quit" to command-row
        accept command-row
        move spaces to verb argument
        unstring command-row delimited by space into verb
        if function length(function trim(verb)) < 58
            move command-row(function length(function trim(verb)) + 2:) to argument
        end-if
        evaluate verb
            when "find" perform find-name
            when "next" perform next-page
            when "back" perform page-before
            when "orders" perform show-orders
            when "quit" exit perform
            when other display "find NAME, next, back, orders NUMBER, quit"
        end-evaluate
    end-perform
    close customers order-lines
    stop run.

find-name.
    move argument to c-name
    start customers key >= c-name
    if fine
        move 0 to row-count
        move 1 to place
        perform next-page
    else
        move 0 to place
        display "no name at or behind " argument
    end-if.

next-page.
    if nowhere
        display "find a name first"
    else
        if at-first-row perform steps times read customers next end-perform end-if
        move 0 to n
        perform page-size times
            read customers next
            if not fine exit perform end-if
            add 1 to n
            move customer to page-row(n)
        end-perform
        move 1 to place
        if n = 0 display "no more" else move n to row-count perform show-page end-if
    end-if.

page-before.
    if nowhere
        display "find a name first"
    else
        if at-last-row perform steps times read customers previous end-perform end-if
        move page-size to n
        perform page-size times
            read customers previous
            if not fine exit perform end-if
            move customer to page-row(n)
            subtract 1 from n
        end-perform
        move 2 to place
        if n = page-size
            display "no more"
        else
            compute row-count = page-size - n
            perform varying n from 1 by 1 until n > row-count
                move page-row(page-size - row-count + n) to page-row(n)
            end-perform
            perform show-page
        end-if
    end-if.

show-page.
    compute steps = row-count - 1
    perform varying n from 1 by 1 until n > row-count
        move page-row(n) to customer
        display c-number " " c-name " " function trim(c-town)
    end-perform
    display "--".

show-orders.
    move 0 to order-count total
    move function numval(argument) to l-customer
    read order-lines key l-customer
    perform until not fine or l-customer not = function numval(argument)
        add 1 to order-count
        add l-amount to total
        read order-lines next
    end-perform
    move total to amount-shown
    display order-count " lines, " amount-shown.

give-up.
    display "enquiry: a file cannot be opened: status " st upon stderr
    stop run returning 1.
