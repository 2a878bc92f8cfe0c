# black-box tests: batch
