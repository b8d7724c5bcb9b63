// The screens' layer. Its parts live in the sub-folders of ui/.
