# black-box tests: display
